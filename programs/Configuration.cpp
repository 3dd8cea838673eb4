#include "programs/Configuration.h"

#include "Control/ConfigFile.h"
#include "Linux/records/Config.h"
#include "Runtime/Text.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Stp.h"
#include "programs/GivenSpeeds.h"

namespace {

/// What the file says of a bridge's own business, which the kernel tells.
std::string bridgeProblem(const std::string& file, State::Database& database) {
    const std::string bridge = database.entityIs<Linux::Config>("linux/config")->bridge();
    if (bridge.empty()) return {};
    if (!IntfId::validName(bridge))
        return Runtime::concat(file, ": linux/config/bridge: \"", bridge, "\" is no name of an interface");
    const auto bridging = database.entityIs<Bridging::Config>("bridging/config");
    const auto topology = database.entityIs<Bridging::Topology::Config>("bridging/topology/config");
    const auto stp = database.entityIs<Stp::Status>("stp/status");
    const auto refuse = [&](std::string_view field) {
        return Runtime::concat(file, ": ", field, ": cannot be given, it comes from bridge \"", bridge,
                               "\" (linux/config)");
    };
    if (bridging->bridgeMac() != EthAddr{}) return refuse("bridging/config/bridgeMac");
    if (!bridging->vlanConfig().empty()) return refuse("bridging/config/vlanConfig");
    if (!bridging->switchIntfConfig().empty()) return refuse("bridging/config/switchIntfConfig");
    if (!topology->topoConfig().empty()) return refuse("bridging/topology/config/topoConfig");
    if (stp->mode() != Stp::Mode::None) return refuse("stp/status/mode");
    return {};
}

}  // namespace

Configuration::Configuration() : given_{std::make_shared<GivenSpeeds>()} {}

const std::set<std::string, std::less<>>& Configuration::paths() {
    static const std::set<std::string, std::less<>> paths{"msrp/config",
                                                          "msrp/cliConfig",
                                                          "mrp/config",
                                                          "mvrp/config",
                                                          "mvrp/mrp/config",
                                                          "bridging/config",
                                                          "bridging/topology/config",
                                                          "stp/status",
                                                          "linux/config",
                                                          "qos/status",
                                                          "qos/hardware/status/global"};
    return paths;
}

std::string Configuration::load(const std::string& file, State::Database& database,
                                Control::RecordAccess& access) {
    Control::ConfigTargets targets{{"interface/status/eth/phy/all", given_}};
    for (const std::string& path : paths()) targets.emplace(path, database.entity(path));
    std::string problem = Control::loadConfig(file, targets);
    if (problem.empty()) problem = bridgeProblem(file, database);
    // A later change would not be carried out.
    access.writableDel("linux/config");
    if (!database.entityIs<Linux::Config>("linux/config")->bridge().empty()) {
        for (const char* path : {"bridging/config", "bridging/topology/config", "stp/status"})
            access.writableDel(path);
    }
    return problem;
}

void Configuration::eachSpeed(const std::function<void(IntfId, Interface::Speed)>& each) const {
    given_->intfStatus().each([&](IntfId intf, const GivenSpeed& given) { each(intf, given.speedEnum()); });
}
