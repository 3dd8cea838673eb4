#include "programs/PortsOfInterest.h"

#include <utility>

PortsOfInterest::PortsOfInterest(std::shared_ptr<const Msrp::Config> msrp,
                                 std::shared_ptr<const Mvrp::Config> mvrp,
                                 std::shared_ptr<const Bridging::Config> bridging, Told added, Told removed)
    : msrp_{std::move(msrp)},
      mvrp_{std::move(mvrp)},
      bridging_{std::move(bridging)},
      vlanPorts_{bridging_},
      added_{std::move(added)},
      removed_{std::move(removed)} {
    msrpReactor_ = msrp_->react([this](const State::Change&) { refresh(); });
    mvrpReactor_ = mvrp_->react([this](const State::Change&) { refresh(); });
    bridgingReactor_ = bridging_->watch([this](const State::Change& change) {
        const auto vlan = Bridging::VlanPorts::vlanOf(change);
        if (vlan && vlanPorts_.refresh(*vlan)) refresh();
    });
    refresh();
}

void PortsOfInterest::refresh() {
    std::set<IntfId> wanted;
    for (const auto& [intf, enabled] : msrp_->intfEnable()) wanted.insert(intf);
    for (const auto& [intf, enabled] : mvrp_->intfEnable()) wanted.insert(intf);
    vlanPorts_.each([&](IntfId intf) { wanted.insert(intf); });
    const std::set<IntfId> before = std::exchange(ports_, wanted);
    for (const IntfId intf : before) {
        if (!wanted.contains(intf)) removed_(intf);
    }
    for (const IntfId intf : wanted) {
        if (!before.contains(intf)) added_(intf);
    }
}
