/// What is asked of the kernel so that ports join and leave VLANs, and forget addresses.
#pragma once

#include "Linux/kernel/NetlinkMessage.h"
#include "Switch/VlanSet.h"

#include <optional>
#include <vector>

namespace Linux {

/// VLANs with neighbouring numbers.
struct VlanSpan {
    VlanId first;
    VlanId last;  ///< not smaller
    bool operator==(const VlanSpan&) const = default;
};
/// In ascending order.
std::vector<VlanSpan> spansOf(const VlanSet& vlans);

/// The port of a bridge becomes a member of these VLANs, with tags.
NetlinkMessage joinVlans(unsigned port, VlanSpan vlans);
/// It is one no more.
NetlinkMessage leaveVlans(unsigned port, VlanSpan vlans);
/// What the bridge has learnt on the port, of that VLAN or of all, is forgotten; what somebody has entered
/// stays.
NetlinkMessage forgetAddresses(unsigned bridge, unsigned port, std::optional<VlanId> vlan);

}  // namespace Linux
