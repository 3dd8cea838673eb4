/// What is to be known of a bridge, as one plain value: made from what the kernel tells, compared, and then
/// put on record.
#pragma once

#include "Linux/bridge/VlanMessage.h"
#include "Linux/links/Device.h"
#include "Switch/BridgingTopology.h"
#include "Switch/IntfId.h"

#include <cstdint>
#include <map>

namespace Linux {

struct BridgeFacts {
    struct Port {
        Bridging::Topology::PortState state = Bridging::Topology::PortState::unknown;
        PortVlans vlans;
        bool operator==(const Port&) const = default;
    };

    EthAddr mac;                      ///< as in the bridge identifier; zero where there is no bridge
    std::uint16_t priority = 0x8000;  ///< as in the bridge identifier
    bool spanningTree = false;
    std::map<IntfId, Port> ports;
    bool operator==(const BridgeFacts&) const = default;
};

/// `bridge` has settings, and its ports are among `devices`.  Where it does not filter VLANs, all of its
/// ports carry those of `srVlan` (VLAN 2 with tags when it is empty), and `vlans` does not matter.
BridgeFacts bridgeFacts(const Device& bridge, const std::map<unsigned, Device>& devices,
                        const VlanTable& vlans, const State::FlatMap<VlanId, bool>& srVlan);

}  // namespace Linux
