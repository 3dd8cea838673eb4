#include "Linux/links/Ethtool.h"

#include "Linux/kernel/NetlinkAttributes.h"
#include "Runtime/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace Linux {

namespace {

/// Has the kernel fill in `answer`, which begins with the number of the question.
bool askEthtool(const std::string& name, void* answer) {
    // Any socket will do; this kind is needed anyway.
    const Runtime::FileDescriptor fd{socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC)};
    ifreq request{};
    std::copy_n(name.begin(), std::min(name.size(), sizeof request.ifr_name - 1), request.ifr_name);
    request.ifr_data = static_cast<char*>(answer);
    return ioctl(fd.get(), SIOCETHTOOL, &request) == 0;
}

}  // namespace

LinkMode linkMode(const std::string& name) {
    // The settings are followed by three sets of link modes, whose size in words the first call tells.
    constexpr std::size_t maxWords = 127;
    alignas(ethtool_link_settings)
        std::array<std::byte, sizeof(ethtool_link_settings) + 3 * sizeof(std::uint32_t) * maxWords>
            answer{};
    auto* settings = new (answer.data()) ethtool_link_settings{};
    settings->cmd = ETHTOOL_GLINKSETTINGS;
    if (!askEthtool(name, answer.data()) || settings->link_mode_masks_nwords >= 0) return {};
    settings->cmd = ETHTOOL_GLINKSETTINGS;
    settings->link_mode_masks_nwords = static_cast<std::int8_t>(-settings->link_mode_masks_nwords);
    if (!askEthtool(name, answer.data())) return {};
    const bool unknown = settings->speed == static_cast<std::uint32_t>(SPEED_UNKNOWN);
    return {unknown ? 0 : settings->speed, settings->duplex == DUPLEX_HALF};
}

bool flowControl(const std::string& name) {
    ethtool_pauseparam pause{};
    pause.cmd = ETHTOOL_GPAUSEPARAM;
    return askEthtool(name, &pause) && (pause.rx_pause != 0 || pause.tx_pause != 0);
}

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
