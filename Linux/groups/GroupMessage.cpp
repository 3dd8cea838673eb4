#include "Linux/groups/GroupMessage.h"

#include "Linux/kernel/NetlinkAttributes.h"
#include "Linux/kernel/NewerKernel.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <string_view>
#include <sys/socket.h>

namespace Linux {

namespace {

// The kernel's structures with their gaps named: what is in a gap would be sent as it happens to be.
struct PortMessage {
    std::uint8_t family = AF_BRIDGE;
    std::array<std::uint8_t, 3> gap{};
    std::uint32_t bridge = 0;
};
static_assert(sizeof(PortMessage) == sizeof(br_port_msg));

struct MdbEntry {
    std::uint32_t port = 0;
    std::uint8_t state = 0;
    std::uint8_t flags = 0;
    std::uint16_t vid = 0;
    std::array<std::uint8_t, 16> address{};
    std::uint16_t addressKind = 0;  ///< 0: MAC; else the EtherType of the IP
    std::uint16_t gap = 0;
};
static_assert(sizeof(MdbEntry) == sizeof(br_mdb_entry));

MdbEntry kernelEntry(const GroupMember& member, std::uint8_t state) {
    MdbEntry entry{.port = member.port, .state = state, .vid = member.group.vid};
    std::ranges::copy(member.group.mac.octets(), entry.address.begin());
    return entry;
}

template <class T>
NetlinkMessage bridgeSetting(unsigned bridge, std::uint16_t setting, T value) {
    ifinfomsg link{};
    link.ifi_index = static_cast<int>(bridge);
    NetlinkMessage message{RTM_NEWLINK, requestAck};
    message.part(link).nest(IFLA_LINKINFO, [&](NetlinkMessage& info) {
        info.octets(IFLA_INFO_KIND, std::as_bytes(std::span{std::string_view{"bridge"}}));
        info.nest(IFLA_INFO_DATA, [&](NetlinkMessage& data) { data.attribute(setting, value); });
    });
    return message;
}

std::optional<GroupEntry> decodeEntry(const nlattr& info) {
    const auto octets = payload(info);
    if (octets.size() < sizeof(MdbEntry)) return std::nullopt;
    const auto held = number<MdbEntry>(octets);
    GroupEntry entry;
    entry.member.port = held.port;
    entry.permanent = (held.state & MDB_PERMANENT) != 0;
    entry.offloaded = (held.flags & MDB_FLAGS_OFFLOAD) != 0;
    entry.notTaken = (held.flags & mdbFlagsOffloadFailed) != 0;
    Group& group = entry.member.group;
    group.vid = held.vid;
    const bool isIp = held.addressKind != 0;
    if (isIp) {
        group.ip.assign(held.address.begin(), held.address.end());
        group.ip += std::to_string(held.addressKind);
    } else {
        std::array<std::uint8_t, 6> mac{};
        std::copy_n(held.address.begin(), mac.size(), mac.begin());
        group.mac = EthAddr{mac};
    }
    eachAttribute(
        info,
        [&](const nlattr& attribute) {
            if (mnl_attr_get_type(&attribute) == MDBA_MDB_EATTR_RTPROT) {
                entry.protocol = number<std::uint8_t>(attribute);
            } else if (mnl_attr_get_type(&attribute) == MDBA_MDB_EATTR_SOURCE && isIp) {
                const auto source = payload(attribute);
                group.ip.append(reinterpret_cast<const char*>(source.data()), source.size());
            }
        },
        sizeof(MdbEntry));
    return entry;
}

/// What the kernel says of a port or a bridge that is just changing.
constexpr std::array<std::string_view, 3> passingReasons{"not a bridge port", "not running",
                                                         "processing is disabled"};

}  // namespace

NetlinkMessage groupAdd(unsigned bridge, const GroupMember& member, std::uint8_t protocol) {
    NetlinkMessage message{RTM_NEWMDB, requestAdd};
    message.part(PortMessage{.bridge = bridge}).attribute(MDBA_SET_ENTRY, kernelEntry(member, MDB_PERMANENT));
    if (protocol != 0) {
        message.nest(MDBA_SET_ENTRY_ATTRS | NLA_F_NESTED,
                     [&](NetlinkMessage& mark) { mark.attribute(mdbeAttrRtprot, protocol); });
    }
    return message;
}

NetlinkMessage groupDelete(unsigned bridge, const GroupMember& member) {
    NetlinkMessage message{RTM_DELMDB, requestAck};
    message.part(PortMessage{.bridge = bridge}).attribute(MDBA_SET_ENTRY, kernelEntry(member, MDB_TEMPORARY));
    return message;
}

NetlinkMessage groupFlush(unsigned bridge, std::uint8_t protocol) {
    NetlinkMessage message{RTM_DELMDB, requestAck | netlinkBulk};
    message.part(PortMessage{.bridge = bridge})
        .attribute(MDBA_SET_ENTRY, MdbEntry{})
        .nest(MDBA_SET_ENTRY_ATTRS | NLA_F_NESTED,
              [&](NetlinkMessage& mark) { mark.attribute(mdbeAttrRtprot, protocol); });
    return message;
}

std::array<std::byte, 8> groupDumpBody() { return std::bit_cast<std::array<std::byte, 8>>(PortMessage{}); }

NetlinkMessage multicastSnooping(unsigned bridge, bool on) {
    return bridgeSetting(bridge, IFLA_BR_MCAST_SNOOPING, static_cast<std::uint8_t>(on ? 1 : 0));
}

NetlinkMessage multicastTableSize(unsigned bridge, std::uint32_t groups) {
    return bridgeSetting(bridge, IFLA_BR_MCAST_HASH_MAX, groups);
}

NetlinkMessage multicastRouter(unsigned port, std::uint8_t role) {
    ifinfomsg link{};
    link.ifi_family = AF_BRIDGE;
    link.ifi_index = static_cast<int>(port);
    NetlinkMessage message{RTM_SETLINK, requestAck};
    message.part(link).nest(IFLA_PROTINFO | NLA_F_NESTED, [&](NetlinkMessage& info) {
        info.attribute(IFLA_BRPORT_MULTICAST_ROUTER, role);
    });
    return message;
}

unsigned groupBridge(const nlmsghdr& message) {
    // The messages of a dump bear the type of the request.
    if (message.nlmsg_type != RTM_NEWMDB && message.nlmsg_type != RTM_DELMDB &&
        message.nlmsg_type != RTM_GETMDB) {
        return 0;
    }
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(PortMessage)) return 0;
    return static_cast<const PortMessage*>(mnl_nlmsg_get_payload(&message))->bridge;
}

std::vector<unsigned> decodeRouters(const nlmsghdr& message, unsigned bridge) {
    std::vector<unsigned> ports;
    if (bridge == 0 || groupBridge(message) != bridge) return ports;
    eachAttribute(message, sizeof(PortMessage), [&](const nlattr& table) {
        if (mnl_attr_get_type(&table) != MDBA_ROUTER) return;
        eachAttribute(table, [&](const nlattr& port) {
            const auto index = number<std::uint32_t>(port);
            if (mnl_attr_get_type(&port) == MDBA_ROUTER_PORT && index != 0) ports.push_back(index);
        });
    });
    return ports;
}

std::vector<GroupEntry> decodeGroups(const nlmsghdr& message, unsigned bridge) {
    std::vector<GroupEntry> entries;
    if (bridge == 0 || groupBridge(message) != bridge) return entries;
    eachAttribute(message, sizeof(PortMessage), [&](const nlattr& table) {
        if (mnl_attr_get_type(&table) != MDBA_MDB) return;
        eachAttribute(table, [&](const nlattr& group) {
            if (mnl_attr_get_type(&group) != MDBA_MDB_ENTRY) return;
            eachAttribute(group, [&](const nlattr& info) {
                if (mnl_attr_get_type(&info) != MDBA_MDB_ENTRY_INFO) return;
                if (const auto entry = decodeEntry(info)) entries.push_back(*entry);
            });
        });
    });
    return entries;
}

std::set<GroupMember> notOffloaded(std::span<const GroupEntry> entries) {
    std::set<GroupMember> found;
    // Without a chip that takes entries, none is marked.
    const bool hasChip = std::ranges::any_of(
        entries, [](const GroupEntry& entry) { return entry.offloaded || entry.notTaken; });
    for (const GroupEntry& entry : entries) {
        if (hasChip && !entry.offloaded) found.insert(entry.member);
    }
    return found;
}

GroupReaction reactionToAdd(const NetlinkAnswer& answer) {
    switch (answer.error) {
        case 0:
            return GroupReaction::done;
        case EEXIST:
            return GroupReaction::reread;
        case E2BIG:
            return GroupReaction::full;
        case EINVAL:
            if (answer.text == "Unknown attribute type") return GroupReaction::unmarked;
            return std::ranges::any_of(passingReasons,
                                       [&](auto part) { return answer.text.find(part) != answer.text.npos; })
                       ? GroupReaction::passing
                       : GroupReaction::refused;
        case EAGAIN:
        case EINTR:
        case ENOBUFS:
        case ENODEV:
            return GroupReaction::passing;
        default:
            return GroupReaction::refused;
    }
}

GroupReaction reactionToDelete(const NetlinkAnswer& answer) {
    switch (answer.error) {
        case 0:
            return GroupReaction::done;
        case EINVAL:
            // Silent, it means that there is no such group, port or VLAN.
            return answer.text.empty() ? GroupReaction::reread : GroupReaction::refused;
        case ENODEV:
        case ENOENT:
            return GroupReaction::reread;
        default:
            return GroupReaction::refused;
    }
}

}  // namespace Linux
