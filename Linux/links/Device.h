/// What the kernel tells of one Ethernet device.
#pragma once

#include "Switch/EthAddr.h"

#include <cstdint>
#include <linux/netlink.h>
#include <optional>
#include <string>

namespace Linux {

/// How a link runs.
struct LinkMode {
    std::uint32_t megabitsPerSecond = 0;  ///< 0: unknown
    bool halfDuplex = false;
    bool operator==(const LinkMode&) const = default;
};

/// The settings of a bridge.
struct BridgeSettings {
    EthAddr mac;  ///< as in its bridge identifier
    std::uint16_t priority = 0x8000;
    bool spanningTree = false;  ///< the kernel's own or a daemon's
    bool vlanFiltering = false;
    bool multicastSnooping = false;
    std::uint32_t multicastTableSize = 0;   ///< groups
    std::uint16_t groupForwardingMask = 0;  ///< bit n: frames to 01:80:c2:00:00:0n are forwarded
    bool multipleSpanningTrees = false;
    bool operator==(const BridgeSettings&) const = default;
};

/// States of a bridge port (BR_STATE_...).
enum class BridgePortState : std::uint8_t {
    disabled = 0,
    listening = 1,
    learning = 2,
    forwarding = 3,
    blocking = 4
};

/// What a socket has to know of the device behind a port.
struct Place {
    unsigned ifindex = 0;  ///< 0: it does not exist
    EthAddr mac;
    std::uint32_t mtu = 1500;  ///< octets that a frame may carry
    bool operator==(const Place&) const = default;
};

struct Device {
    unsigned ifindex = 0;
    std::string name;
    EthAddr mac;
    std::uint32_t mtu = 1500;
    bool up = false;           ///< switched on
    bool operational = false;  ///< up, with a carrier, and its driver agrees
    unsigned txQueues = 1;
    bool inSwitchChip = false;  ///< a chip forwards between it and others: it has a switch identifier
    unsigned bridge = 0;        ///< index of the bridge that it is a port of; 0: none
    BridgePortState portState = BridgePortState::disabled;
    /// Of a bridge's port: whether multicast routers are looked for behind it (IFLA_BRPORT_MULTICAST_ROUTER).
    std::uint8_t multicastRouter = 0;
    std::optional<BridgeSettings> bridgeSettings;  ///< of a bridge
    LinkMode mode;                                 ///< while it is operational
    bool operator==(const Device&) const = default;
};

/// What one notification or one entry of a dump says.
struct LinkMessage {
    bool gone = false;  ///< the device itself is no more
    /// It tells only of the device as a bridge port: `bridge`, `portState` and `multicastRouter` (and index
    /// and name).
    bool portOnly = false;
    Device device;
};

/// Nothing for messages about something else, malformed or not about an Ethernet device.
std::optional<LinkMessage> decodeLink(const nlmsghdr& message);

}  // namespace Linux
