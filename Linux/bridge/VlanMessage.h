/// What the kernel tells of the VLANs of a bridge's ports, and the table that its messages make.
#pragma once

#include "Linux/kernel/NetlinkMessage.h"
#include "Switch/VlanSet.h"

#include <cstddef>
#include <cstdint>
#include <linux/netlink.h>
#include <map>
#include <optional>
#include <vector>

namespace Linux {

/// VLANs with neighbouring numbers that one port has alike.
struct VlanRange {
    std::uint16_t first = 0;  ///< 1 to 4094, and so is `last`, which is not smaller
    std::uint16_t last = 0;
    bool pvid = false;      ///< frames without a tag belong to it
    bool untagged = false;  ///< frames leave without a tag
    /// Frames pass as far as the VLAN goes; the port as a whole has a state as well.
    bool forwarding = true;
    bool operator==(const VlanRange&) const = default;
};

/// What one notification or one entry of a dump says.
struct VlanMessage {
    unsigned ifindex = 0;  ///< a bridge's port, or the bridge itself
    bool gone = false;     ///< the port has these VLANs no more; of them only the numbers are told
    std::vector<VlanRange> ranges;
    bool operator==(const VlanMessage&) const = default;
};

/// Nothing for messages about something else or malformed ones; a range that cannot be is left out.
std::optional<VlanMessage> decodeVlans(const nlmsghdr& message);

/// What a request for the VLANs of all bridges (RTM_GETVLAN) carries behind its header.
std::vector<std::byte> vlanDumpBody();

/// Which VLANs of a bridge follow a tree of their own: the instance's number (MSTID), not 0, by the VLAN's.
using VlanTrees = std::map<VlanId, std::uint16_t>;

/// Takes in what a message says of the instances of that bridge's VLANs; false for one that says nothing of
/// it.
bool enterTrees(VlanTrees& trees, unsigned bridge, const nlmsghdr& message);

/// What a request for them carries behind its header.
std::vector<std::byte> treeDumpBody();

struct PortVlans {
    VlanSet member;              ///< those that it is a member of
    VlanSet blocked;             ///< those of them whose frames do not pass, because of their own state
    VlanSet tagged;              ///< those of them whose frames leave with a tag
    std::optional<VlanId> pvid;  ///< the one of frames without a tag
    bool operator==(const PortVlans&) const = default;
};

/// By the port's index.
using VlanTable = std::map<unsigned, PortVlans>;

/// Takes in what one more message says.
void enter(VlanTable& table, const VlanMessage& message);

}  // namespace Linux
