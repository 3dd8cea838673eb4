#include "programs/ConfigRecords.h"

#include "Linux/records/Config.h"
#include "Mrp/Records.h"
#include "Msrp/types/Config.h"
#include "Mvrp/Records.h"
#include "Runtime/LogConfig.h"
#include "Runtime/Text.h"
#include "Store/Config.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Qos.h"
#include "Switch/Stp.h"
#include "programs/GivenSpeeds.h"
#include "programs/StoreOptions.h"

#include <algorithm>
#include <optional>

namespace {

/// Calls `each` with a new record and its path, for every one that can be configured.
template <class F>
void eachRecord(F&& each) {
    each("bridging/config", std::make_shared<Bridging::Config>());
    each("bridging/topology/config", std::make_shared<Bridging::Topology::Config>());
    each(ConfigRecords::speedsPath, std::make_shared<GivenSpeeds>());
    each("linux/config", std::make_shared<Linux::Config>());
    each("log/config", std::make_shared<Runtime::LogConfig>());
    each("mrp/config", std::make_shared<Mrp::MrpConfig>());
    each("msrp/cliConfig", std::make_shared<Msrp::CliConfig>());
    each("msrp/config", std::make_shared<Msrp::Config>());
    each("mvrp/config", std::make_shared<Mvrp::Config>());
    each("mvrp/mrp/config", std::make_shared<Mrp::MrpConfig>());
    each("qos/hardware/status/global", std::make_shared<Qos::HwStatus>());
    each("qos/status", std::make_shared<Qos::Status>());
    each("redundancy/config", std::make_shared<Store::RedundancyConfig>());
    each("store/config", std::make_shared<Store::Config>());
    each("stp/status", std::make_shared<Stp::Status>());
}

struct Objection {
    std::vector<std::string> where;
    std::string what;
};

constexpr const char* intfEnable = "intfEnable";
constexpr const char* noBridge = "means all ports of the bridge, and linux/config names none";

/// The role is asked for ten times in it.
constexpr double shortestLease = 0.2;

std::optional<Objection> storeObjection(const ConfigRecords& records) {
    const auto store = records.record<Store::Config>("store/config");
    const double lease = records.record<Store::RedundancyConfig>("redundancy/config")->lease();
    if (lease > 0 && lease < shortestLease)
        return Objection{{"redundancy/config", "lease"}, "is neither 0 nor 0.2 to 60"};
    if (!store->used()) {
        if (lease > 0)
            return Objection{{"redundancy/config", "lease"}, "needs a store, and store/config names none"};
        return std::nullopt;
    }
    if (const std::string problem = Store::problemOf(storeOptions(*store)); !problem.empty())
        return Objection{{"store/config"}, problem};
    const std::string& name = store->name();
    if (name.empty() || name.find_first_of("{} \t\n") != std::string::npos)
        return Objection{{"store/config", "name"},
                         '"' + name + "\" is no name: not empty, without blanks and braces"};
    for (const auto& [path, read] : store->inputs()) {
        if (read && !storeInputs().contains(path))
            return Objection{{"store/config", "inputs", path}, "is no record that others may write"};
    }
    return std::nullopt;
}

std::optional<Objection> objection(const ConfigRecords& records) {
    if (auto wrong = storeObjection(records)) return wrong;
    const std::string bridge = records.record<Linux::Config>("linux/config")->bridge();
    if (bridge.empty()) {
        const auto needsBridge = [&](const char* record) {
            return Objection{{record, intfEnable, std::string{everyPort}}, noBridge};
        };
        if (records.record<Msrp::Config>("msrp/config")->choice().said().contains({}))
            return needsBridge("msrp/config");
        if (records.record<Mvrp::Config>("mvrp/config")->choice().said().contains({}))
            return needsBridge("mvrp/config");
        return std::nullopt;
    }
    if (!IntfId::validName(bridge))
        return Objection{{"linux/config", "bridge"}, '"' + bridge + "\" is no name of an interface"};
    // The kernel tells of a bridge's own business.
    const auto bridging = records.record<Bridging::Config>("bridging/config");
    const auto topology = records.record<Bridging::Topology::Config>("bridging/topology/config");
    const auto stp = records.record<Stp::Status>("stp/status");
    const auto refuse = [&](const char* record, const char* field) {
        return Objection{{record, field},
                         "cannot be given, it comes from bridge \"" + bridge + "\" (linux/config)"};
    };
    if (bridging->bridgeMac() != EthAddr{}) return refuse("bridging/config", "bridgeMac");
    if (!bridging->vlanConfig().empty()) return refuse("bridging/config", "vlanConfig");
    if (!bridging->switchIntfConfig().empty()) return refuse("bridging/config", "switchIntfConfig");
    if (!topology->topoConfig().empty()) return refuse("bridging/topology/config", "topoConfig");
    if (stp->mode() != Stp::Mode::None) return refuse("stp/status", "mode");
    return std::nullopt;
}

bool says(const State::Value& content, const std::vector<std::string>& where) {
    const State::Value* at = &content;
    for (const std::string& name : where) {
        at = at->member(name);
        if (at == nullptr) return false;
    }
    return true;
}

}  // namespace

ConfigRecords::ConfigRecords() {
    eachRecord([this](std::string_view path, auto record) { all_.emplace(path, std::move(record)); });
}

const std::set<std::string, std::less<>>& ConfigRecords::paths() {
    static const auto paths = [] {
        std::set<std::string, std::less<>> all;
        eachRecord([&](std::string_view path, const auto&) { all.emplace(path); });
        all.erase(std::string{speedsPath});
        return all;
    }();
    return paths;
}

std::vector<std::pair<std::string, State::Schema>> ConfigRecords::schema() {
    std::vector<std::pair<std::string, State::Schema>> all;
    eachRecord(
        [&](std::string_view path, const auto& record) { all.emplace_back(path, State::schemaOf(*record)); });
    return all;
}

std::string ConfigRecords::take(const std::vector<Control::ConfigFile>& files) {
    for (const Control::ConfigFile& file : files) {
        if (std::string problem = Control::applyConfig(file, all_); !problem.empty()) return problem;
    }
    const auto wrong = objection(*this);
    if (!wrong) return {};
    // The last that speaks of it is the one that counts.
    std::string problem = State::Difference{wrong->where, {}, {}}.path() + ": " + wrong->what;
    const auto said = std::find_if(files.rbegin(), files.rend(),
                                   [&](const auto& file) { return says(file.content, wrong->where); });
    return said != files.rend() ? said->name + ": " + problem : problem;
}

std::string ConfigRecords::take(const State::Value& patch) {
    return Control::applyConfig({"", patch, 0}, all_);
}

std::vector<State::Difference> differences(const ConfigRecords& was, const ConfigRecords& is,
                                           const std::set<std::string, std::less<>>& records) {
    std::vector<State::Difference> all;
    for (const std::string& path : records) {
        for (State::Difference& found :
             State::differences(*was.all().find(path)->second, *is.all().find(path)->second)) {
            found.where.insert(found.where.begin(), path);
            all.push_back(std::move(found));
        }
    }
    return all;
}

std::vector<State::Difference> differences(const ConfigRecords& was, const ConfigRecords& is) {
    std::set<std::string, std::less<>> all;
    for (const auto& [path, record] : was.all()) all.insert(path);
    return differences(was, is, all);
}

std::string everyPortProblem(std::string_view record, const State::Value& patch, std::string_view bridge) {
    if (!bridge.empty() || (record != "msrp/config" && record != "mvrp/config")) return {};
    const State::Value* ports = patch.member(intfEnable);
    const State::Value* every = ports != nullptr ? ports->member(everyPort) : nullptr;
    if (every == nullptr || every->isNull()) return {};
    return Runtime::concat(record, "/intfEnable/*: ", noBridge);
}

std::vector<Control::ConfigSource> standardConfig() {
    return {{"/etc/msrpd/msrpd.json"}, {"/etc/msrpd/msrpd.d", true}};
}

std::vector<Control::ConfigSource> configSources(const std::vector<std::string>& named) {
    if (named.empty()) return standardConfig();
    std::vector<Control::ConfigSource> sources;
    sources.reserve(named.size());
    for (const std::string& path : named) sources.push_back({path});
    return sources;
}

std::string readConfigs(const std::vector<Control::ConfigSource>& sources, Control::ConfigReading reading,
                        std::vector<Control::ConfigFile>& files) {
    std::vector<std::string> names;
    std::string problem = Control::listConfig(sources, names);
    std::size_t room = Control::rereadOctets;
    for (const std::string& name : names) {
        if (!problem.empty()) break;
        Control::ConfigFile& file = files.emplace_back();
        if (reading == Control::ConfigReading::once) {
            problem = Control::readConfig(name, reading, file);
        } else {
            problem = Control::readConfig(name, reading, file, room);
            room -= std::min(room, file.octets);
        }
    }
    return problem;
}
