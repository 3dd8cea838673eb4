#include "programs/StoreOptions.h"

#include "Runtime/Text.h"

#include <array>
#include <chrono>
#include <random>
#include <sstream>
#include <unistd.h>

namespace {

Runtime::Duration spanOf(double seconds) {
    return std::chrono::duration_cast<Runtime::Duration>(std::chrono::duration<double>{seconds});
}

std::string machine() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "msrpd";
}

}  // namespace

std::string supervisorName(const Store::RedundancyConfig& config) {
    return config.name().empty() ? machine() : config.name();
}

Store::Options storeOptions(const Store::Config& config) {
    Store::Options options{.addresses = {},
                           .master = config.sentinels().empty() ? "" : config.master(),
                           .access = {.user = config.user(),
                                      .passwordFile = config.passwordFile(),
                                      .tls = {.on = config.tls(),
                                              .authorities = config.tlsAuthorities(),
                                              .certificate = config.tlsCertificate(),
                                              .key = config.tlsKey(),
                                              .server = config.tlsName()}},
                           .sentinelUser = config.sentinelUser(),
                           .sentinelPasswordFile = config.sentinelPasswordFile(),
                           .patience = spanOf(config.patience())};
    std::istringstream addresses{config.sentinels().empty() ? config.redis() : config.sentinels()};
    for (std::string one; addresses >> one;) options.addresses.push_back(one);
    return options;
}

const std::set<std::string, std::less<>>& storeInputs() {
    static const std::set<std::string, std::less<>> paths{"bridging/config",
                                                          "bridging/topology/config",
                                                          "interface/status/eth/intf",
                                                          "interface/status/eth/phy/all",
                                                          "qos/status",
                                                          "qos/hardware/status/global",
                                                          "stp/status",
                                                          "switch/refusals",
                                                          "switch/time"};
    return paths;
}

Store::Supervisor::Options supervisorOptions(const Store::Config& store,
                                             const Store::RedundancyConfig& redundancy) {
    std::random_device random;
    const std::string name = supervisorName(redundancy);
    Store::Supervisor::Options options{
        .store = storeOptions(store),
        .seed = random(),
        .name = store.name(),
        .id = Runtime::concat(name, ':', ::getpid(), ':', random(), random()),
        .who = name,
        .lease = spanOf(redundancy.lease()),
        .outputs = {"msrp/status", "msrp/waiting", "bridging/input/config/msrp", "qos/input/config/msrp"},
        .inputs = {},
        .others = {"bridging/input/vlans/mvrp", "bridging/vlans", "linux/config", "linux/groups",
                   "linux/packets", "mrp/config", "msrp/cliConfig", "msrp/config", "mvrp/config",
                   "mvrp/status", "switch/domain", "switch/streams"},
        .lazy = {"Msrp::IntfStatus/rxCounters", "Msrp::IntfStatus/txCounters", "Linux::IntfPackets/sent",
                 "Linux::IntfPackets/sendDropped", "Linux::IntfPackets/received",
                 "Linux::IntfPackets/receiveDropped", "Linux::IntfPackets/lastSource"}};
    for (const std::string& path : storeInputs()) {
        const bool* read = store.inputs().find(path);
        (read != nullptr && *read ? options.inputs : options.others).insert(path);
    }
    return options;
}
