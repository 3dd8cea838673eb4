#include "programs/PortsOfInterest.h"

#include <utility>

PortsOfInterest::PortsOfInterest(std::shared_ptr<const Msrp::Config> msrp,
                                 std::shared_ptr<const Bridging::Config> bridging, Told added, Told removed)
    : msrp_{std::move(msrp)},
      bridging_{std::move(bridging)},
      added_{std::move(added)},
      removed_{std::move(removed)} {
    msrpReactor_ = msrp_->react([this](const State::Change&) { refresh(); });
    bridgingReactor_ = bridging_->watch([this](const State::Change& change) {
        if (change.field == "vlanConfig" || (change.field == "intf" && matters(change))) refresh();
    });
    refresh();
}

bool PortsOfInterest::matters(const State::Change& change) const {
    const auto* intf = change.key<IntfId>();
    const auto* vlan = dynamic_cast<const Bridging::VlanConfig*>(&change.entity);
    if (intf == nullptr || vlan == nullptr) return true;
    // A port of a trunk joins and leaves thousands of VLANs one by one.
    const bool stays = msrp_->intfEnable().contains(*intf) || vlan->intf(*intf) != nullptr;
    return !(stays && ports_.contains(*intf));
}

void PortsOfInterest::refresh() {
    std::set<IntfId> wanted;
    for (const auto& [intf, enabled] : msrp_->intfEnable()) wanted.insert(intf);
    bridging_->vlanConfig().each([&](VlanId, const Bridging::VlanConfig& vlan) {
        vlan.intf().each([&](IntfId intf, const auto&) { wanted.insert(intf); });
    });
    const std::set<IntfId> before = std::exchange(ports_, wanted);
    for (const IntfId intf : before) {
        if (!wanted.contains(intf)) removed_(intf);
    }
    for (const IntfId intf : wanted) {
        if (!before.contains(intf)) added_(intf);
    }
}
