/// Entries of a bridge's multicast table ("MDB"), as they are asked for, listed and announced: a frame to the
/// group's address goes to the ports that are in the group, and to no other.
#pragma once

#include "Linux/kernel/Netlink.h"
#include "Switch/EthAddr.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace Linux {

/// What takes one place in the bridge's table.
struct Group {
    EthAddr mac;
    std::uint16_t vid = 0;  ///< 0 on a bridge that does not filter VLANs
    /// What tells groups of IP addresses apart, whose `mac` is zero; empty for those that are of interest.
    std::string ip;
    auto operator<=>(const Group&) const = default;
};

/// One port in one group.
struct GroupMember {
    Group group;
    unsigned port = 0;  ///< the kernel's index; that of the bridge itself where the host listens
    auto operator<=>(const GroupMember&) const = default;
};

struct GroupEntry {
    GroupMember member;
    bool permanent = true;      ///< false: learned from what hosts report
    std::uint8_t protocol = 0;  ///< who made it, where the kernel can tell; 0: not said
    bool offloaded = false;     ///< a switch chip forwards by it
    bool notTaken = false;      ///< a switch chip has refused it
    bool operator==(const GroupEntry&) const = default;
};

/// `protocol` 4 to 255, or 0 for kernels that know no such mark.
NetlinkMessage groupAdd(unsigned bridge, const GroupMember& member, std::uint8_t protocol);
/// Where the bridge filters VLANs, the kernel takes VLAN 0 for all VLANs of the port: such an entry cannot be
/// deleted then, and others would be in its place.
NetlinkMessage groupDelete(unsigned bridge, const GroupMember& member);
/// Deletes all entries with that mark, those of VLAN 0 included.  Kernel 6.8.
NetlinkMessage groupFlush(unsigned bridge, std::uint8_t protocol);
/// Behind the header of a request for the tables of all bridges: the kernel lists no single one.
std::array<std::byte, 8> groupDumpBody();

/// Whether the bridge keeps groups at all; without, it sends every multicast frame everywhere.
NetlinkMessage multicastSnooping(unsigned bridge, bool on);
/// Groups for which the bridge's table has room.
NetlinkMessage multicastTableSize(unsigned bridge, std::uint32_t groups);

/// The role of a bridge's port for routers of multicast packets (IFLA_BRPORT_MULTICAST_ROUTER): 0 none, 1 as
/// it is learned from what routers say, 2 for ever.
NetlinkMessage multicastRouter(unsigned port, std::uint8_t role);

/// The bridge that such a message is about; 0: it is about something else.
unsigned groupBridge(const nlmsghdr& message);
/// The entries in one message of a dump, or in a notification (RTM_NEWMDB: they are there, RTM_DELMDB: they
/// are no more).  None for messages about something else, about another bridge, or malformed.
std::vector<GroupEntry> decodeGroups(const nlmsghdr& message, unsigned bridge);
/// Likewise the ports behind which the kernel takes a multicast router to be: they get all groups.
std::vector<unsigned> decodeRouters(const nlmsghdr& message, unsigned bridge);

/// Of the entries of one bridge, those that its switch chip has not, while it has others.
std::set<GroupMember> notOffloaded(std::span<const GroupEntry> entries);

/// What the kernel's answer to a request about a group calls for.
enum class GroupReaction {
    done,      ///< it is as we asked
    unmarked,  ///< this kernel cannot mark entries: ask again without
    full,      ///< the table is full, and the kernel stopped snooping on the whole bridge because of it
    reread,    ///< the table is not what we took it for
    passing,   ///< not now: what is in the way goes by itself, or will be heard of
    refused,   ///< the answer says why
};

GroupReaction reactionToAdd(const NetlinkAnswer& answer);
GroupReaction reactionToDelete(const NetlinkAnswer& answer);

}  // namespace Linux
