#include "programs/EveryPort.h"

#include <utility>

namespace {

constexpr Runtime::Duration betweenTries = std::chrono::seconds{5};

/// It is chosen, if it is a port of the bridge.
bool wants(const PortChoice& choice, IntfId port) {
    return choice.choosesEvery() && !choice.said().contains(port);
}

}  // namespace

EveryPort::EveryPort(Runtime::Loop& loop, Linux::DeviceTable& devices, std::string bridge,
                     std::shared_ptr<Msrp::Config> msrp, std::shared_ptr<Mvrp::Config> mvrp,
                     PortClaims& claims, Complaint complaint)
    : devices_{devices},
      bridge_{std::move(bridge)},
      msrp_{std::move(msrp)},
      mvrp_{std::move(mvrp)},
      claims_{claims},
      complaint_{std::move(complaint)},
      refresh_{loop, [this] { refresh(); }},
      again_{loop, [this] { refresh(); }} {
    // Once for all that a turn of the loop brings.
    const auto changed = [this](const State::Change&) { refresh_.armIn({}); };
    msrpReactor_ = msrp_->react(changed);
    mvrpReactor_ = mvrp_->react(changed);
    devices_.watch([this](const Linux::Device* before, const Linux::Device* now) {
        if (concerns(before) || concerns(now)) refresh_.armIn({});
    });
    refresh();
}

bool EveryPort::concerns(const Linux::Device* device) const {
    return device != nullptr && (device->bridge != 0 || device->name == bridge_);
}

std::set<IntfId> EveryPort::members() const {
    std::set<IntfId> ports;
    const Linux::Device* bridge = devices_.find(bridge_);
    if (bridge == nullptr || !bridge->bridgeSettings) return ports;
    for (const unsigned index : devices_.portsOf(bridge->ifindex)) {
        const Linux::Device* device = devices_.find(index);
        const auto port = device != nullptr ? State::KeyText<IntfId>::parse(device->name) : std::nullopt;
        if (port) ports.insert(*port);
    }
    return ports;
}

std::set<IntfId> EveryPort::ours(const std::set<IntfId>& ports) {
    std::set<IntfId> ours;
    std::set<IntfId> refused;
    for (const IntfId port : ports) {
        const bool wanted = wants(msrp_->choice(), port) || wants(mvrp_->choice(), port);
        const std::string problem = wanted ? claims_.take(port) : std::string{};
        if (!problem.empty()) {
            refused.insert(port);
            if (!refused_.contains(port)) complaint_(problem + ", and left out of all ports of " + bridge_);
        } else if (claims_.has(port)) {
            ours.insert(port);
        }
    }
    refused_ = std::move(refused);
    if (refused_.empty()) {
        again_.cancel();
    } else if (!again_.armed()) {
        again_.armIn(betweenTries);
    }
    return ours;
}

void EveryPort::refresh() {
    const std::set<IntfId> ports = ours(members());
    msrp_->bridgePortsAre(ports);
    mvrp_->bridgePortsAre(ports);
}
