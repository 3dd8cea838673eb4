#include "Linux/links/Device.h"

#include "Linux/kernel/NetlinkAttributes.h"
#include "Switch/IntfId.h"

#include <array>
#include <cstring>
#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <string_view>

namespace Linux {

namespace {

EthAddr ethAddr(const nlattr& attribute, std::size_t offset = 0) {
    std::array<std::uint8_t, 6> octets{};
    if (mnl_attr_get_payload_len(&attribute) >= offset + octets.size()) {
        const auto* payload = static_cast<const std::byte*>(mnl_attr_get_payload(&attribute));
        std::memcpy(octets.data(), payload + offset, octets.size());
    }
    return EthAddr{octets};
}

BridgeSettings decodeBridge(const nlattr& data) {
    BridgeSettings settings;
    eachAttribute(data, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case IFLA_BR_STP_STATE:
                settings.spanningTree = number<std::uint32_t>(attribute) != 0;
                break;
            case IFLA_BR_VLAN_FILTERING:
                settings.vlanFiltering = number<std::uint8_t>(attribute) != 0;
                break;
            case IFLA_BR_GROUP_FWD_MASK:
                settings.groupForwardingMask = number<std::uint16_t>(attribute);
                break;
            case IFLA_BR_PRIORITY:
                settings.priority = number<std::uint16_t>(attribute);
                break;
            case IFLA_BR_BRIDGE_ID:
                settings.mac = ethAddr(attribute, 2);
                break;
            case IFLA_BR_MCAST_SNOOPING:
                settings.multicastSnooping = number<std::uint8_t>(attribute) != 0;
                break;
            case IFLA_BR_MCAST_HASH_MAX:
                settings.multicastTableSize = number<std::uint32_t>(attribute);
                break;
            case IFLA_BR_MULTI_BOOLOPT: {
                const auto options = number<br_boolopt_multi>(attribute);
                settings.multipleSpanningTrees = (options.optval & (1U << BR_BOOLOPT_MST_ENABLE)) != 0;
                break;
            }
            default:
                break;
        }
    });
    return settings;
}

void decodePort(const nlattr& data, Device& device) {
    eachAttribute(data, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == IFLA_BRPORT_STATE) {
            const auto state = number<std::uint8_t>(attribute);
            device.portState =
                state <= BR_STATE_BLOCKING ? BridgePortState{state} : BridgePortState::disabled;
        } else if (mnl_attr_get_type(&attribute) == IFLA_BRPORT_MULTICAST_ROUTER) {
            device.multicastRouter = number<std::uint8_t>(attribute);
        }
    });
}

/// What kind of device it is, and whose port.
void decodeKind(const nlattr& linkInfo, Device& device, bool& isBridgePort) {
    std::string_view kind;
    eachAttribute(linkInfo, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case IFLA_INFO_KIND:
                kind = text(attribute);
                break;
            case IFLA_INFO_DATA:
                if (kind == "bridge") device.bridgeSettings = decodeBridge(attribute);
                break;
            case IFLA_INFO_SLAVE_KIND:
                isBridgePort = text(attribute) == "bridge";
                break;
            case IFLA_INFO_SLAVE_DATA:
                if (isBridgePort) decodePort(attribute, device);
                break;
            default:
                break;
        }
    });
}

}  // namespace

std::optional<LinkMessage> decodeLink(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return std::nullopt;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return std::nullopt;
    const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    if ((info->ifi_family != AF_UNSPEC && info->ifi_family != AF_BRIDGE) || info->ifi_type != ARPHRD_ETHER ||
        info->ifi_index <= 0) {
        return std::nullopt;
    }

    LinkMessage link;
    // As a bridge port it may be deleted and live on as a device.
    link.portOnly = info->ifi_family == AF_BRIDGE;
    const bool deleted = message.nlmsg_type == RTM_DELLINK;
    link.gone = deleted && !link.portOnly;
    Device& device = link.device;
    device.ifindex = static_cast<unsigned>(info->ifi_index);
    device.up = (info->ifi_flags & IFF_UP) != 0;
    constexpr unsigned lowerUp = 1U << 16;  // IFF_LOWER_UP, which <net/if.h> does not have
    constexpr unsigned ready = IFF_UP | IFF_RUNNING | lowerUp;
    device.operational = (info->ifi_flags & ready) == ready;
    unsigned master = 0;
    bool isBridgePort = link.portOnly;
    eachAttribute(message, sizeof(ifinfomsg), [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case IFLA_IFNAME:
                device.name = text(attribute);
                break;
            case IFLA_ADDRESS:
                device.mac = ethAddr(attribute);
                break;
            case IFLA_MTU:
                device.mtu = number<std::uint32_t>(attribute);
                break;
            case IFLA_NUM_TX_QUEUES:
                device.txQueues = number<std::uint32_t>(attribute);
                break;
            case IFLA_PHYS_SWITCH_ID:
                device.inSwitchChip = !payload(attribute).empty();
                break;
            case IFLA_MASTER:
                master = number<std::uint32_t>(attribute);
                break;
            case IFLA_PROTINFO:
                if (link.portOnly) decodePort(attribute, device);
                break;
            case IFLA_LINKINFO:
                decodeKind(attribute, device, isBridgePort);
                break;
            default:
                break;
        }
    });
    if (!IntfId::validName(device.name)) return std::nullopt;
    // The bridge tells of itself in the same way, as its own master.
    if (link.portOnly && master == device.ifindex) return std::nullopt;
    if (isBridgePort && !deleted) device.bridge = master;
    return link;
}

}  // namespace Linux
