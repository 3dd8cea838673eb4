#include "Mvrp/MvrpAgent.h"

#include "Mvrp/MvrpEvents.h"
#include "Runtime/Assert.h"

#include <utility>

namespace Mvrp {

void populate(State::Database& database) {
    database.entityIs<Config>("mvrp/config");
    database.entityIs<Status>("mvrp/status");
    database.entityIs<Mrp::MrpConfig>("mvrp/mrp/config");
    database.entityIs<Mrp::MrpStatus>("mvrp/mrp/status");
    database.entityIs<Mrp::AttributesStatus>("mvrp/mrp/attributes");
    database.entityIs<Bridging::VlanRequests>("bridging/input/vlans/mvrp");
    database.entityIs<Bridging::VlanMembers>("bridging/vlans");
}

Agent::Agent(Runtime::AgentEnvironment environment, Mrp::PacketPortProvider& ports, StreamVlan streamVlan)
    : Runtime::Agent{"Mvrp", environment}, ports_{ports}, streamVlan_{std::move(streamVlan)} {}

Agent::~Agent() { stop(); }

void Agent::doInit() {
    Runtime::EntityManager& entities = entityManager();
    entities.localEntityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    entities.mountIs("mvrp/config", "Mvrp::Config", "r");
    entities.mountIs("mvrp/status", "Mvrp::Status", "w");
    entities.mountIs("mvrp/mrp/config", "Mrp::MrpConfig", "r");
    entities.mountIs("mvrp/mrp/status", "Mrp::MrpStatus", "w");
    entities.mountIs("mvrp/mrp/attributes", "Mrp::AttributesStatus", "wc");
    entities.mountIs("bridging/input/vlans/mvrp", "Bridging::VlanRequests", "w");
    entities.mountIs("bridging/vlans", "Bridging::VlanMembers", "r");
    entities.mountIs("bridging/config", "Bridging::Config", "r");
    entities.mountIs("bridging/topology/config", "Bridging::Topology::Config", "r");
    entities.mountIs("stp/status", "Stp::Status", "r");
}

void Agent::doMountsComplete(Runtime::MountStatus status) {
    Runtime::require(status == Runtime::MountStatus::success, "mountStatus == success");
    const Runtime::EntityManager& entities = entityManager();
    const auto bridging = entities.reader<Bridging::Config>("bridging/config");
    const auto topology = entities.reader<Bridging::Topology::Config>("bridging/topology/config");
    const auto stp = entities.reader<Stp::Status>("stp/status");
    const auto links = entities.reader<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    const Runtime::AgentEnvironment& env = environment();
    mvrpSm_ = std::make_unique<MvrpSm>(
        MvrpSm::Inputs{.config = entities.reader<Config>("mvrp/config"),
                       .status = entities.writer<Status>("mvrp/status"),
                       .requests = entities.writer<Bridging::VlanRequests>("bridging/input/vlans/mvrp"),
                       .members = entities.reader<Bridging::VlanMembers>("bridging/vlans"),
                       .bridging = bridging,
                       .topology = topology,
                       .stp = stp,
                       .links = links,
                       .streamVlan = streamVlan_},
        env.loop, env.systemLog);
    mrpSm_ = std::make_unique<Mrp::MrpSm>(Mrp::Inputs{
        .brConfig = bridging,
        .application = *mvrpSm_,
        .mrpConfig = entities.reader<Mrp::MrpConfig>("mvrp/mrp/config"),
        .mrpStatus = entities.writer<Mrp::MrpStatus>("mvrp/mrp/status"),
        .attributes = entities.writer<Mrp::AttributesStatus>("mvrp/mrp/attributes"),
        .stpStatus = stp,
        .topoConfig = topology,
        .ethPhyIntfStatusDir = links,
        .environment = {.loop = env.loop,
                        .ports = ports_,
                        .trace = env.trace,
                        .report = [&log = env.systemLog](
                                      IntfId, const std::string& text) { log.log(MVRP_ERROR, text); },
                        .seed = env.seed},
        .standbyMode = false});
    mvrpSm_->begin();
}

void Agent::doCleanup() {
    if (mvrpSm_) mvrpSm_->end();
    mrpSm_.reset();
    mvrpSm_.reset();
}

}  // namespace Mvrp
