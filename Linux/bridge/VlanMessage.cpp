#include "Linux/bridge/VlanMessage.h"

#include "Linux/kernel/NetlinkAttributes.h"

#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>

namespace Linux {

namespace {

std::optional<VlanRange> decodeRange(const nlattr& entry) {
    VlanRange range;
    eachAttribute(entry, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case BRIDGE_VLANDB_ENTRY_INFO: {
                const auto info = number<bridge_vlan_info>(attribute);
                range.first = info.vid;
                range.pvid = (info.flags & BRIDGE_VLAN_INFO_PVID) != 0;
                range.untagged = (info.flags & BRIDGE_VLAN_INFO_UNTAGGED) != 0;
                break;
            }
            case BRIDGE_VLANDB_ENTRY_RANGE:
                range.last = number<std::uint16_t>(attribute);
                break;
            case BRIDGE_VLANDB_ENTRY_STATE:
                range.forwarding = number<std::uint8_t>(attribute) == BR_STATE_FORWARDING;
                break;
            default:
                break;
        }
    });
    if (range.last == 0) range.last = range.first;  // a single one
    if (!VlanId::inRange(range.first) || !VlanId::inRange(range.last) || range.last < range.first) {
        return std::nullopt;
    }
    return range;
}

std::vector<std::byte> dumpBody(std::uint32_t flags) {
    NetlinkMessage message{RTM_GETVLAN, 0};
    br_vlan_msg header{};
    header.family = AF_BRIDGE;
    message.part(header).attribute(BRIDGE_VLANDB_DUMP_FLAGS, flags);
    const auto body = message.bytes().subspan(sizeof(nlmsghdr));
    return {body.begin(), body.end()};
}

}  // namespace

std::optional<VlanMessage> decodeVlans(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWVLAN && message.nlmsg_type != RTM_DELVLAN) return std::nullopt;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(br_vlan_msg)) return std::nullopt;
    const auto* header = static_cast<const br_vlan_msg*>(mnl_nlmsg_get_payload(&message));
    if (header->family != AF_BRIDGE) return std::nullopt;

    VlanMessage vlans;
    vlans.ifindex = header->ifindex;
    vlans.gone = message.nlmsg_type == RTM_DELVLAN;
    eachAttribute(message, sizeof(br_vlan_msg), [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) != BRIDGE_VLANDB_ENTRY) return;
        if (const auto range = decodeRange(attribute)) vlans.ranges.push_back(*range);
    });
    return vlans;
}

std::vector<std::byte> vlanDumpBody() { return dumpBody(0); }

bool enterTrees(VlanTrees& trees, unsigned bridge, const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWVLAN || mnl_nlmsg_get_payload_len(&message) < sizeof(br_vlan_msg))
        return false;
    const auto* header = static_cast<const br_vlan_msg*>(mnl_nlmsg_get_payload(&message));
    if (header->family != AF_BRIDGE || header->ifindex != bridge) return false;
    bool told = false;
    eachAttribute(message, sizeof(br_vlan_msg), [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) != BRIDGE_VLANDB_GLOBAL_OPTIONS) return;
        told = true;
        std::uint16_t first = 0;
        std::uint16_t last = 0;
        std::uint16_t instance = 0;
        eachAttribute(attribute, [&](const nlattr& option) {
            switch (mnl_attr_get_type(&option)) {
                case BRIDGE_VLANDB_GOPTS_ID:
                    first = number<std::uint16_t>(option);
                    break;
                case BRIDGE_VLANDB_GOPTS_RANGE:
                    last = number<std::uint16_t>(option);
                    break;
                case BRIDGE_VLANDB_GOPTS_MSTI:
                    instance = number<std::uint16_t>(option);
                    break;
                default:
                    break;
            }
        });
        if (last == 0) last = first;
        if (!VlanId::inRange(first) || !VlanId::inRange(last)) return;
        for (unsigned id = first; id <= last; ++id) {
            trees.erase(VlanId{id});
            if (instance != 0) trees.emplace(VlanId{id}, instance);
        }
    });
    return told;
}

std::vector<std::byte> treeDumpBody() { return dumpBody(BRIDGE_VLANDB_DUMPF_GLOBAL); }

void enter(VlanTable& table, const VlanMessage& message) {
    PortVlans& port = table[message.ifindex];
    for (const VlanRange& range : message.ranges) {
        for (unsigned id = range.first; id <= range.last; ++id) {
            port.member.set(id, !message.gone);
            port.blocked.set(id, !message.gone && !range.forwarding);
            port.tagged.set(id, !message.gone && !range.untagged);
        }
        // A port has one such VLAN at most.  When another becomes it, the kernel tells of that one only.
        if (!message.gone && range.pvid) {
            port.pvid = VlanId{range.first};
        } else if (port.pvid && port.pvid->value() >= range.first && port.pvid->value() <= range.last) {
            port.pvid.reset();
        }
    }
}

}  // namespace Linux
