/// Sees to it that streams go to their listeners alone.
///
/// One query of any host makes the kernel take its port for that of a multicast router, and such a port gets
/// every group of the bridge, reserved streams included.  So this role is taken off the bridge's ports, and
/// given back at the end; what it was is remembered in a file, for an end that is none.
#pragma once

#include "Linux/groups/BridgeMemory.h"
#include "Linux/kernel/Contention.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"
#include "Runtime/Time.h"

#include <set>
#include <string>

namespace Linux {

class RouterPorts {
public:
    /// `keep`: ports keep their role.  All references must outlive it.
    RouterPorts(NetlinkChannel& kernel, BridgeMemory& memory, bool keep, Complaint complaint)
        : kernel_{kernel}, memory_{memory}, keep_{keep}, complaint_{std::move(complaint)} {}

    /// Takes the role off a port of the bridge, if it has one.  Somebody who gives it back again and again is
    /// left alone for a minute.
    void look(const Device& port, Runtime::Time now);
    /// The port is no longer one of the bridge's; the kernel has forgotten the setting.
    void left(unsigned port);
    /// Gives the port its role back, if we took it.
    void giveBack(unsigned port);
    /// The same for all ports but those of that bridge.
    void giveBackBut(const DeviceTable& devices, unsigned bridge);

private:
    NetlinkChannel& kernel_;
    BridgeMemory& memory_;
    const bool keep_;
    const Complaint complaint_;
    Contentions<unsigned> contested_;  ///< ports
    std::set<unsigned> taken_;         ///< in this life
    std::set<unsigned> complained_;    ///< about ports that cannot be changed
};

}  // namespace Linux
