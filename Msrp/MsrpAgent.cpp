#include "Msrp/MsrpAgent.h"

#include "Runtime/Assert.h"

#include <cstdlib>

namespace Msrp {

namespace {

constexpr std::string_view agentName = "Msrp";
constexpr std::string_view redundancyPath = "redundancy/status";
/// Weights of the agent's requests against other agents' while it is active.
constexpr std::uint32_t fdbPriority = 100;

/// Writes the attribute log into the ring log, which always takes more.
Mrp::MrpAttrLogSm::Sink ringLogSink(Runtime::RingLog& ringLog) {
    return [&ringLog](const Mrp::AttrLogRecord& record) {
        ringLog.write(record.time, "attribute", record.intf.number(),
                      U64{static_cast<U8>(record.what)} << 8 | record.attributeType, record.key);
        return true;
    };
}

}  // namespace

Runtime::AgentFactory agentFactory(Mrp::PacketPortProvider& ports) {
    return [&ports](Runtime::AgentEnvironment environment) {
        return std::make_unique<Agent>(environment, ports);
    };
}

Agent::Agent(Runtime::AgentEnvironment environment, Mrp::PacketPortProvider& ports)
    : Runtime::Agent{std::string{agentName}, environment}, ports_{ports} {}

Agent::~Agent() { stop(); }

void Agent::doInit() {
    if (environment().ringLogFile) {
        const std::string file = name() + (std::getenv("RINGLOGDIR") == nullptr ? "-%d" : "") + ".rl";
        const std::string problem =
            environment().ringLog.initialise(Runtime::RingLog::path(file), 24, 0, 1, 512);
        if (!problem.empty()) environment().systemLog.log(MSRP_ERROR, problem);
    }
    Runtime::EntityManager& entities = entityManager();
    entities.localEntityIs<Interface::AllIntfStatusDir>("interface/status/all");
    entities.localEntityIs<Interface::AllIntfStatusLocalDir>("interface/status/local");
    entities.localEntityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    entities.localEntityIs<Interface::EthIntfStatusDir>("interface/status/eth/intf");

    entities.mountIs("msrp/cliConfig", "Msrp::CliConfig", "r");
    entities.mountIs("msrp/config", "Msrp::Config", "r");
    entities.mountIs("msrp/status", "Msrp::Status", "w");
    entities.mountIs("msrp/waiting", "Msrp::Waiting", "wc");
    entities.mountIs("mrp/config", "Mrp::MrpConfig", "r");
    entities.mountIs("mrp/status", "Mrp::MrpStatus", "w");
    entities.mountIs("mrp/attributes", "Mrp::AttributesStatus", "wc");
    entities.mountIs("bridging/config", "Bridging::Config", "r");
    entities.mountIs("qos/input/config/msrp", "Qos::Input::Config", "wc");
    entities.mountIs("qos/status", "Qos::Status", "r");
    entities.mountIs("qos/hardware/status/global", "Qos::HwStatus", "r");
    entities.mountIs("bridging/input/config/msrp", "Bridging::Input::Config", "w");
    entities.mountIs("bridging/topology/config", "Bridging::Topology::Config", "r");
    entities.mountIs("stp/status", "Stp::Status", "r");
    entities.mountIs("switch/refusals", "Switch::Refusals", "r");
    entities.mountIs("switch/time", "Switch::TimeStatus", "r");
    entities.mountIs("switch/domain", "Switch::Domain", "wc");
    entities.mountIs("switch/streams", "Switch::Streams", "wc");

    entities.localEntityIs<Bridging::Topology::Status>("bridging/topology/status");
}

void Agent::fetchRecords() {
    const Runtime::EntityManager& entities = entityManager();
    msrpCliConfig_ = entities.reader<CliConfig>("msrp/cliConfig");
    msrpConfig_ = entities.reader<Config>("msrp/config");
    msrpStatus_ = entities.writer<Status>("msrp/status");
    msrpWaiting_ = entities.writer<Waiting>("msrp/waiting");
    mrpConfig_ = entities.reader<Mrp::MrpConfig>("mrp/config");
    mrpStatus_ = entities.writer<Mrp::MrpStatus>("mrp/status");
    mrpAttributes_ = entities.writer<Mrp::AttributesStatus>("mrp/attributes");
    brConfig_ = entities.reader<Bridging::Config>("bridging/config");
    stpStatus_ = entities.reader<Stp::Status>("stp/status");
    qosMsrpConfig_ = entities.writer<Qos::Input::Config>("qos/input/config/msrp");
    qosStatus_ = entities.reader<Qos::Status>("qos/status");
    qosHwStatus_ = entities.reader<Qos::HwStatus>("qos/hardware/status/global");
    brMsrpConfig_ = entities.writer<Bridging::Input::Config>("bridging/input/config/msrp");
    ethPhyIntfStatusDir_ = entities.reader<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    ethIntfStatusDir_ = entities.reader<Interface::EthIntfStatusDir>("interface/status/eth/intf");
    bridgingTopoConfig_ = entities.reader<Bridging::Topology::Config>("bridging/topology/config");
    refusals_ = entities.reader<Switch::Refusals>("switch/refusals");
    time_ = entities.reader<Switch::TimeStatus>("switch/time");
    domain_ = entities.writer<Switch::Domain>("switch/domain");
    streams_ = entities.writer<Switch::Streams>("switch/streams");
    bridgingTopoStatus_ = entities.writer<Bridging::Topology::Status>("bridging/topology/status");
}

void Agent::doMountsComplete(Runtime::MountStatus mountStatus) {
    Runtime::require(mountStatus == Runtime::MountStatus::success, "mountStatus == success");
    mountsComplete_ = true;
    fetchRecords();

    const auto redundancy = entityManager().reader<Redundancy::RedundancyStatus>(redundancyPath);
    // With a second supervisor about, nobody acts before it is told to.
    if (redundancy) standbyMode_ = true;
    redundancyStatusSm_ = std::make_unique<RedundancyStatusSm>(
        redundancy, [this](bool standby) { standbyModeIs(standby); }, environment().trace);
    topoLibState_ = std::make_shared<Bridging::Topology::TopoLibState>();
    topoLibSm_ = std::make_unique<Bridging::Topology::TopoLibSm>(bridgingTopoConfig_, stpStatus_,
                                                                 bridgingTopoStatus_, topoLibState_);
    msrpLib_ = std::make_unique<MsrpLib>();
    const Runtime::AgentEnvironment& env = environment();
    mrpSm_ = std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
        .brConfig = brConfig_,
        .application = *msrpLib_,
        .mrpConfig = mrpConfig_,
        .mrpStatus = mrpStatus_,
        .attributes = mrpAttributes_,
        .stpStatus = stpStatus_,
        .topoConfig = bridgingTopoConfig_,
        .ethPhyIntfStatusDir = ethPhyIntfStatusDir_,
        .environment = {.loop = env.loop,
                        .ports = ports_,
                        .trace = env.trace,
                        .report = [&log = env.systemLog](
                                      IntfId, const std::string& text) { log.log(MSRP_ERROR, text); },
                        .seed = env.seed},
        .standbyMode = standbyMode_});
    msrpAttrLogSm_ = std::make_unique<Mrp::MrpAttrLogSm>(ringLogSink(env.ringLog));
    mrpSm_->attrLogIs(msrpAttrLogSm_.get());
    msrpSm_ = std::make_unique<MsrpSm>(MsrpSm::Inputs{.cliConfig = msrpCliConfig_,
                                                      .config = msrpConfig_,
                                                      .status = msrpStatus_,
                                                      .waiting = msrpWaiting_,
                                                      .ethPhyIntfStatusDir = ethPhyIntfStatusDir_,
                                                      .brConfig = brConfig_,
                                                      .qosMsrpConfig = qosMsrpConfig_,
                                                      .qosStatus = qosStatus_,
                                                      .qosHwStatus = qosHwStatus_,
                                                      .brMsrpConfig = brMsrpConfig_,
                                                      .bridgingTopoConfig = bridgingTopoConfig_,
                                                      .stpStatus = stpStatus_,
                                                      .topoLib = topoLibState_,
                                                      .refusals = refusals_,
                                                      .time = time_,
                                                      .domain = domain_,
                                                      .attrLogSm = msrpAttrLogSm_.get(),
                                                      .msrpLib = msrpLib_.get(),
                                                      .standbyMode = standbyMode_},
                                       MsrpSm::Platform{.loop = env.loop,
                                                        .systemLog = env.systemLog,
                                                        .trace = env.trace,
                                                        .ringLog = env.ringLog,
                                                        .unitsPerTurn = env.unitsPerTurn});
    domainPublisher_ = std::make_unique<DomainPublisher>(msrpCliConfig_, msrpStatus_, domain_);
    streamPublisher_ = std::make_unique<StreamPublisher>(msrpStatus_, streams_);
    handleStandbyMode();
}

void Agent::standbyModeIs(bool standby) {
    if (standby == standbyMode_) return;
    standbyMode_ = standby;
    // While the objects are being made the role is only kept: start-up ends with the handling of it.
    if (msrpSm_) handleStandbyMode();
}

void Agent::handleStandbyMode() {
    if (!standbyMode_) {
        brMsrpConfig_->fdbConfigPriorityIs(fdbPriority);
        qosMsrpConfig_->agentNameIs(std::string{agentName});
        qosMsrpConfig_->configPriorityIs(MsrpSm::qosPriority);
        qosMsrpConfig_->intfConfigPriorityIs(MsrpSm::qosPriority);
        msrpSm_->doSetCosToTcMap();
    }
    mrpSm_->standbyModeIs(standbyMode_);
    mrpSm_->handleStandbyMode();
    msrpSm_->standbyModeIs(standbyMode_);
    msrpSm_->handleStandbyMode();
    domainPublisher_->standbyModeIs(standbyMode_);
    streamPublisher_->standbyModeIs(standbyMode_);
}

void Agent::withdraw() {
    if (msrpSm_ && !standbyMode_) msrpSm_->withdrawPorts();
}

void Agent::doCleanup() {
    redundancyStatusSm_.reset();
    streamPublisher_.reset();
    domainPublisher_.reset();
    // In standby it is the other agent's.
    if (brMsrpConfig_ && !standbyMode_) brMsrpConfig_->fdbConfigPriorityIs(0);
    msrpSm_.reset();
    if (mrpSm_) mrpSm_->attrLogIs(nullptr);
    msrpAttrLogSm_.reset();
    mrpSm_.reset();
    msrpLib_.reset();
    topoLibSm_.reset();
    topoLibState_.reset();
}

}  // namespace Msrp
