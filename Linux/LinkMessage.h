/// What the kernel says about one network device.
#pragma once

#include "Switch/EthAddr.h"

#include <linux/netlink.h>
#include <optional>
#include <string>

namespace Linux {

struct LinkMessage {
    bool gone = false;  ///< the device no longer exists
    unsigned ifindex = 0;
    std::string name;
    bool operational = false;  ///< administratively up, carrier, and ready to carry frames
    EthAddr mac;

    bool operator==(const LinkMessage&) const = default;
};

/// Empty for a message that is not about the existence or state of an Ethernet device.  `message` must be
/// followed by the octets that its length promises.
std::optional<LinkMessage> decodeLink(const nlmsghdr& message);

}  // namespace Linux
