/// The kernel's messages about how links run: a family of generic netlink, whose numbers differ from boot to
/// boot.
#pragma once

#include "Linux/kernel/Netlink.h"

namespace Linux {

class EthtoolFamily {
public:
    /// Asks for the numbers; `generic` is open for NETLINK_GENERIC.
    NetlinkAnswer resolve(NetlinkChannel& generic);
    /// The group of the notifications.
    [[nodiscard]] unsigned monitorGroup() const { return monitorGroup_; }
    /// The device whose link modes a notification tells of; 0: it tells of something else.
    [[nodiscard]] static unsigned changedDevice(const nlmsghdr& message);

private:
    unsigned monitorGroup_ = 0;
};

}  // namespace Linux
