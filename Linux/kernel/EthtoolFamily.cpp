#include "Linux/kernel/EthtoolFamily.h"

#include "Linux/kernel/NetlinkAttributes.h"

#include <cerrno>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>

namespace Linux {

NetlinkAnswer EthtoolFamily::resolve(NetlinkChannel& generic) {
    NetlinkMessage request{GENL_ID_CTRL, requestAck};
    request.part(genlmsghdr{CTRL_CMD_GETFAMILY, 2, 0}).text(CTRL_ATTR_FAMILY_NAME, ETHTOOL_GENL_NAME);
    NetlinkAnswer answer = generic.ask(std::move(request), [this](const nlmsghdr& message) {
        eachAttribute(message, sizeof(genlmsghdr), [this](const nlattr& attribute) {
            if (mnl_attr_get_type(&attribute) != CTRL_ATTR_MCAST_GROUPS) return;
            eachAttribute(attribute, [this](const nlattr& group) {
                unsigned id = 0;
                bool monitor = false;
                eachAttribute(group, [&](const nlattr& field) {
                    if (mnl_attr_get_type(&field) == CTRL_ATTR_MCAST_GRP_ID)
                        id = number<std::uint32_t>(field);
                    if (mnl_attr_get_type(&field) == CTRL_ATTR_MCAST_GRP_NAME)
                        monitor = text(field) == ETHTOOL_MCGRP_MONITOR_NAME;
                });
                if (monitor) monitorGroup_ = id;
            });
        });
    });
    if (answer && monitorGroup_ == 0) return {ENOENT, "the ethtool family tells of no changes"};
    return answer;
}

unsigned EthtoolFamily::changedDevice(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(genlmsghdr)) return 0;
    const auto* header = static_cast<const genlmsghdr*>(mnl_nlmsg_get_payload(&message));
    if (header->cmd != ETHTOOL_MSG_LINKMODES_NTF) return 0;
    unsigned ifindex = 0;
    eachAttribute(message, sizeof(genlmsghdr), [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) != ETHTOOL_A_LINKMODES_HEADER) return;
        eachAttribute(attribute, [&](const nlattr& field) {
            if (mnl_attr_get_type(&field) == ETHTOOL_A_HEADER_DEV_INDEX)
                ifindex = number<std::uint32_t>(field);
        });
    });
    return ifindex;
}

}  // namespace Linux
