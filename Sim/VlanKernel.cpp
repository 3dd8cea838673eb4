#include "Sim/VlanKernel.h"

#include <utility>

namespace Sim {

VlanKernel::VlanKernel(std::shared_ptr<const Bridging::VlanRequests> requests,
                       std::shared_ptr<Bridging::VlanMembers> members,
                       std::shared_ptr<Bridging::Config> bridging)
    : requests_{std::move(requests)},
      members_{std::move(members)},
      bridging_{std::move(bridging)},
      reactor_{requests_->watch([this](const State::Change&) { carryOut(); })} {}

void VlanKernel::carryOut() {
    const auto& given = members_->port();
    for (auto intf = given.firstKey(); intf; intf = given.nextKey(*intf)) {
        if (!requests_->port(*intf)) give(*intf, {});
    }
    const auto& wanted = requests_->port();
    for (auto intf = wanted.firstKey(); intf; intf = wanted.nextKey(*intf))
        give(*intf, requests_->port(*intf)->member());
}

void VlanKernel::give(IntfId intf, const VlanSet& wanted) {
    const auto record = members_->portIs(intf);
    VlanSet given = record->member();
    eachVlan(given & ~wanted, [&](VlanId vlan) {
        given.reset(vlan.value());
        const auto config = bridging_->vlanConfigIs(vlan);
        config->intfDel(intf);
        if (config->intf().empty()) bridging_->vlanConfigDel(vlan);
    });
    eachVlan(wanted & ~given, [&](VlanId vlan) {
        const auto config = bridging_->vlanConfigIs(vlan);
        if (config->intf().contains(intf)) return;
        // Whose it is, before anybody sees it.
        given.set(vlan.value());
        record->memberIs(given);
        config->intfIs(intf, true);
    });
    record->memberIs(given);
}

}  // namespace Sim
