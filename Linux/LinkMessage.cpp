#include "Linux/LinkMessage.h"

#include "Linux/NetlinkAttributes.h"
#include "Switch/IntfId.h"

#include <algorithm>
#include <array>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/rtnetlink.h>

namespace Linux {

std::optional<LinkMessage> decodeLink(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return std::nullopt;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return std::nullopt;
    const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    // Messages of family AF_BRIDGE tell of the device as a bridge port: deleted there, it lives on.
    if (info->ifi_family != AF_UNSPEC || info->ifi_type != ARPHRD_ETHER || info->ifi_index <= 0)
        return std::nullopt;

    LinkMessage link;
    link.gone = message.nlmsg_type == RTM_DELLINK;
    link.ifindex = static_cast<unsigned>(info->ifi_index);
    constexpr unsigned ready = IFF_UP | IFF_RUNNING | IFF_LOWER_UP;
    link.operational = (info->ifi_flags & ready) == ready;
    eachAttribute(message, sizeof(ifinfomsg), [&](const nlattr& attribute) {
        const auto type = mnl_attr_get_type(&attribute);
        if (type == IFLA_IFNAME && mnl_attr_validate(&attribute, MNL_TYPE_NUL_STRING) >= 0) {
            link.name = mnl_attr_get_str(&attribute);
        } else if (type == IFLA_ADDRESS && mnl_attr_get_payload_len(&attribute) == 6) {
            std::array<std::uint8_t, 6> octets{};
            std::copy_n(static_cast<const std::uint8_t*>(mnl_attr_get_payload(&attribute)), octets.size(),
                        octets.begin());
            link.mac = EthAddr{octets};
        }
    });
    if (!IntfId::validName(link.name)) return std::nullopt;
    return link;
}

}  // namespace Linux
