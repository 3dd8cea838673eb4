#include "Sim/Bridge.h"

#include "Msrp/Database.h"
#include "Msrp/types/Format.h"

#include <algorithm>

namespace Sim {

namespace {

std::string members(const Bridging::Input::EthGroup& group) {
    std::vector<std::string> names;
    for (const auto& [intf, member] : group.intf()) {
        if (member) names.push_back(intf.name());
    }
    std::sort(names.begin(), names.end());
    std::string out;
    for (const std::string& name : names) out += ' ' + name;
    return out;
}

std::string line(const Msrp::StreamData& stream) {
    std::string out = "0x" + Msrp::hexStr(stream.streamId());
    if (!stream.ingressIntf()) return out + " no talker";
    out += ' ' + std::string{Msrp::srClassName(stream.srClass())} + ' ' + std::to_string(stream.bandwidth()) +
           ' ' + stream.ingressIntf().name() + " ->";
    return stream.ethGroup() ? out + members(*stream.ethGroup()) : out + " no group";
}

}  // namespace

Bridge::Bridge(Runtime::Loop& loop, const std::vector<std::string>& ports, std::uint64_t seed,
               Mrp::PacketPortProvider* realPorts)
    : loop_{loop},
      seed_{seed},
      ports_{loop},
      mvrpPorts_{loop},
      provider_{realPorts != nullptr ? *realPorts : ports_} {
    Msrp::populate(database_);
    Mvrp::populate(database_);
    cliConfig = database_.entityIs<Msrp::CliConfig>("msrp/cliConfig");
    config = database_.entityIs<Msrp::Config>("msrp/config");
    status = database_.entityIs<Msrp::Status>("msrp/status");
    waiting = database_.entityIs<Msrp::Waiting>("msrp/waiting");
    census = database_.entityIs<Msrp::Census>("msrp/census");
    streamCensus_ = std::make_unique<Msrp::StreamCensus>(loop_, status, census);
    mrpConfig = database_.entityIs<Mrp::MrpConfig>("mrp/config");
    mrpStatus = database_.entityIs<Mrp::MrpStatus>("mrp/status");
    bridging = database_.entityIs<Bridging::Config>("bridging/config");
    groupConfig = database_.entityIs<Bridging::Input::Config>("bridging/input/config/msrp");
    topology = database_.entityIs<Bridging::Topology::Config>("bridging/topology/config");
    stp = database_.entityIs<Stp::Status>("stp/status");
    queues = database_.entityIs<Qos::Input::Config>("qos/input/config/msrp");
    qosStatus = database_.entityIs<Qos::Status>("qos/status");
    qosHwStatus = database_.entityIs<Qos::HwStatus>("qos/hardware/status/global");
    phy = database_.entityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    refusals = database_.entityIs<Switch::Refusals>("switch/refusals");
    time = database_.entityIs<Switch::TimeStatus>("switch/time");
    mvrpConfig = database_.entityIs<Mvrp::Config>("mvrp/config");
    mvrpStatus = database_.entityIs<Mvrp::Status>("mvrp/status");
    vlanRequests = database_.entityIs<Bridging::VlanRequests>("bridging/input/vlans/mvrp");
    vlanMembers = database_.entityIs<Bridging::VlanMembers>("bridging/vlans");

    bridging->bridgeMacIs(EthAddr::fromNumber(0x02'00'00'00'00'01));
    for (const std::string& port : ports) portIs(port);
    systemLog_.sinkIs([this](const Runtime::LogEvent& event, std::string_view, const std::string& text) {
        log_.push_back(std::string{event.name} + ' ' + text);
    });
    topologyAgent_ = std::make_unique<Bridging::TopologyAgent>(bridging, stp, phy, topology);
}

Bridge::~Bridge() = default;

Runtime::AgentEnvironment Bridge::environment() {
    return {.database = database_,
            .loop = loop_,
            .systemLog = systemLog_,
            .trace = trace_,
            .ringLog = ringLog_,
            .ringLogFile = false,
            .seed = seed_,
            .unitsPerTurn = unitsPerTurn};
}

std::unique_ptr<Msrp::Agent> Bridge::makeAgent() {
    return std::make_unique<Msrp::Agent>(environment(), provider_);
}

void Bridge::start() {
    agent_ = makeAgent();
    agent_->start();
}

void Bridge::mvrpStart() {
    for (const auto& [intf, enabled] : config->intfEnable()) mvrpConfig->intfEnableIs(intf, enabled);
    vlanKernel_ = std::make_unique<VlanKernel>(vlanRequests, vlanMembers, bridging);
    mvrp_ = std::make_unique<Mvrp::Agent>(
        environment(), mvrpPorts_, [this](IntfId intf) { return VlanId{cliConfig->streamVlan(intf)}; });
    mvrp_->start();
}

void Bridge::historyStart(const History::Recorder::Options& options) {
    History::populate(database_);
    history_ = std::make_unique<History::Recorder>(loop_, database_, options);
}

void Bridge::standbyStart() {
    // Only the second agent gets to see this record: each supervisor has a redundancy status of its own.
    database_.entityIs<Redundancy::RedundancyStatus>("redundancy/status")->modeIs(Redundancy::Mode::standby);
    standby_ = makeAgent();
    standby_->start();
    database_.entityDel("redundancy/status");
}

void Bridge::standbyTakesOver() {
    standby_->standbyModeIs(false);
    std::swap(agent_, standby_);
}

void Bridge::stop() {
    agent_->withdraw();
    agent_->stop();
}

void Bridge::portIs(const std::string& port) {
    speedIs(port, Interface::Speed::speed1Gbps);
    linkIs(port, true);
    vlanIs(2, port, true);
    config->intfEnableIs(IntfId{port}, true);
}

void Bridge::linkIs(const std::string& port, bool up) {
    phy->intfStatusIs(IntfId{port})
        ->linkStatusIs(up ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown);
}

void Bridge::speedIs(const std::string& port, Interface::Speed speed) {
    phy->intfStatusIs(IntfId{port})->speedEnumIs(speed);
}

void Bridge::vlanIs(std::uint16_t vlan, const std::string& port, bool tagged) {
    bridging->vlanConfigIs(VlanId{vlan})->intfIs(IntfId{port})->taggedIs(tagged);
}

void Bridge::vlanDel(std::uint16_t vlan, const std::string& port) {
    bridging->vlanConfigIs(VlanId{vlan})->intfDel(IntfId{port});
}

std::string Bridge::streams() const {
    std::string out;
    for (const auto& [id, stream] : agent_->msrpSm()->streamList()) out += line(*stream) + '\n';
    return out;
}

std::string Bridge::stream(std::uint64_t id) const {
    const auto stream = agent_->msrpSm()->streamList(id);
    return stream ? line(*stream) : std::string{};
}

std::string Bridge::classes(const std::string& port) const {
    const std::shared_ptr<const Msrp::IntfStatus> intf = status->intfStatus(IntfId{port});
    if (!intf) return port + " absent";
    return port + ' ' + State::enumText(intf->srClassState(Msrp::SrClassId::SrClassA)) + ' ' +
           State::enumText(intf->srClassState(Msrp::SrClassId::SrClassB));
}

std::string Bridge::groups() const {
    std::string out;
    groupConfig->fdbConfig().each([&](VlanId vlan, const Bridging::Input::FdbConfig& fdb) {
        fdb.ethGroup().each([&](EthAddr address, const Bridging::Input::EthGroup& group) {
            out += vlan.text() + ' ' + address.text() + ':' + members(group) + '\n';
        });
    });
    return out;
}

std::uint64_t Bridge::allocated(const std::string& port, Msrp::SrClassId srClass) const {
    const std::shared_ptr<const Msrp::IntfStatus> intf = status->intfStatus(IntfId{port});
    return intf ? intf->classBandwidthAllocated(srClass) : 0;
}

std::uint32_t Bridge::rx(const std::string& port, std::uint32_t counter) const {
    return status->intfStatus(IntfId{port})->rxCounters().get(Msrp::MsrpCounter{counter});
}

std::uint32_t Bridge::tx(const std::string& port, std::uint32_t counter) const {
    return status->intfStatus(IntfId{port})->txCounters().get(Msrp::MsrpCounter{counter});
}

std::size_t Bridge::logged(const std::string& text) const {
    return static_cast<std::size_t>(std::ranges::count_if(
        log_, [&](const std::string& entry) { return entry.find(text) != std::string::npos; }));
}

}  // namespace Sim
