#include "Linux/vlans/MembershipMessage.h"

#include "Linux/kernel/NewerKernel.h"

#include <linux/if_bridge.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Linux {

namespace {

NetlinkMessage membership(std::uint16_t type, unsigned port, VlanSpan vlans) {
    NetlinkMessage message{type, requestAck};
    ifinfomsg header{};
    header.ifi_family = AF_BRIDGE;
    header.ifi_index = static_cast<int>(port);
    const auto end = [](NetlinkMessage& inside, VlanId vlan, int flags) {
        inside.attribute(IFLA_BRIDGE_VLAN_INFO,
                         bridge_vlan_info{static_cast<std::uint16_t>(flags), vlan.value()});
    };
    message.part(header).nest(IFLA_AF_SPEC, [&](NetlinkMessage& inside) {
        if (vlans.first == vlans.last) return end(inside, vlans.first, 0);
        end(inside, vlans.first, BRIDGE_VLAN_INFO_RANGE_BEGIN);
        end(inside, vlans.last, BRIDGE_VLAN_INFO_RANGE_END);
    });
    return message;
}

}  // namespace

std::vector<VlanSpan> spansOf(const VlanSet& vlans) {
    std::vector<VlanSpan> spans;
    eachVlan(vlans, [&](VlanId vlan) {
        if (!spans.empty() && spans.back().last.value() + 1 == vlan.value()) {
            spans.back().last = vlan;
        } else {
            spans.push_back({vlan, vlan});
        }
    });
    return spans;
}

NetlinkMessage joinVlans(unsigned port, VlanSpan vlans) { return membership(RTM_SETLINK, port, vlans); }

NetlinkMessage leaveVlans(unsigned port, VlanSpan vlans) { return membership(RTM_DELLINK, port, vlans); }

NetlinkMessage forgetAddresses(unsigned bridge, unsigned port, std::optional<VlanId> vlan) {
    NetlinkMessage message{RTM_DELNEIGH, static_cast<std::uint16_t>(requestAck | netlinkBulk)};
    ndmsg header{};
    header.ndm_family = AF_BRIDGE;
    header.ndm_ifindex = static_cast<int>(bridge);
    header.ndm_flags = NTF_SELF;
    // Those that are neither the bridge's own nor entered by somebody.
    constexpr std::uint16_t states = NUD_PERMANENT | NUD_NOARP;
    message.part(header).attribute(NDA_IFINDEX, std::uint32_t{port}).attribute(NDA_NDM_STATE_MASK, states);
    if (vlan) message.attribute(NDA_VLAN, vlan->value());
    return message;
}

}  // namespace Linux
