/// How links run, by what the kernel's two interfaces for that say: calls that ask for one device, and
/// messages that tell of changes.
#pragma once

#include "Linux/kernel/Netlink.h"
#include "Linux/links/Device.h"

#include <string>

namespace Linux {

/// How the device of that name runs; nothing known where the kernel does not say.
LinkMode linkMode(const std::string& name);

/// Whether the device of that name heeds or sends pause frames; false where the kernel does not say.
bool flowControl(const std::string& name);

/// The family of generic netlink that tells of changes; its numbers differ from boot to boot.
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
