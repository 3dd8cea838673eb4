#include "Switch/VlanPorts.h"

#include <utility>

namespace Bridging {

VlanPorts::VlanPorts(std::shared_ptr<const Config> config) : config_{std::move(config)} {
    const auto& vlans = config_->vlanConfig();
    for (auto vlan = vlans.firstKey(); vlan; vlan = vlans.nextKey(*vlan)) refresh(*vlan);
}

bool VlanPorts::refresh(VlanId vlan) {
    std::vector<IntfId> now;
    if (const auto config = config_->vlanConfig(vlan))
        config->intf().each([&](IntfId intf, const VlanPortConfig&) { now.push_back(intf); });
    bool changed = false;
    for (const IntfId intf : now) changed = ++memberships_[intf] == 1 || changed;
    std::vector<IntfId>& before = members_[vlan];
    for (const IntfId intf : before) {
        const auto count = memberships_.find(intf);
        if (--count->second != 0) continue;
        memberships_.erase(count);
        changed = true;
    }
    before = std::move(now);
    if (before.empty()) members_.erase(vlan);
    return changed;
}

std::optional<VlanId> VlanPorts::vlanOf(const State::Change& change) {
    const auto* vlan = change.key<VlanId>();
    if (vlan != nullptr && change.field == State::fieldName<Config>("vlanConfig")) return *vlan;
    // Of a VLAN, or of a member of one.
    for (const State::Entity* entity : {&change.entity, change.entity.parent()}) {
        if (const auto* config = dynamic_cast<const VlanConfig*>(entity)) return config->vlanId();
    }
    return std::nullopt;
}

}  // namespace Bridging
