/// Entries of ours on any bridge of the machine: found, and deleted whatever state the bridge is in.
#pragma once

#include "Linux/groups/GroupMessage.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/Device.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace Linux {

/// All multicast tables of the machine, by the bridge's index.
using GroupsByBridge = std::map<unsigned, std::vector<GroupEntry>>;
/// On an error `groups` are not all.
NetlinkAnswer readAllGroups(NetlinkChannel& kernel, GroupsByBridge& groups);

/// Whether the entry cannot be named in a request: the kernel would take it for those of all VLANs.
bool isStuck(const GroupMember& member, const BridgeSettings& settings);

/// Deletes entries of one bridge.  Where snooping is off it is on meanwhile, since the kernel changes no
/// entry without.  All that are `isStuck` are passed over, and those that are gone count as deleted.
/// `deleted` has an element for each.  Empty on success; else what went wrong with one of them.
std::string removeGroups(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings,
                         std::span<const GroupMember> members, std::vector<bool>& deleted);
/// Deletes all entries of the bridge with that mark, those that are `isStuck` included, in the same way.
NetlinkAnswer flushGroups(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings,
                          std::uint8_t protocol);

}  // namespace Linux
