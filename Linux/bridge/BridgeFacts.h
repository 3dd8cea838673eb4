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
        std::map<std::uint16_t, Bridging::Topology::PortState> trees;  ///< states by instance
        bool operator==(const Port&) const = default;
    };

    EthAddr mac;                      ///< as in the bridge identifier; zero where there is no bridge
    std::uint16_t priority = 0x8000;  ///< as in the bridge identifier
    bool spanningTree = false;
    bool multiple = false;  ///< one for each instance
    VlanTrees trees;        ///< of the VLANs that do not follow the common one
    std::map<IntfId, Port> ports;
    bool operator==(const BridgeFacts&) const = default;
};

/// `bridge` has settings, and its ports are among `devices`.  Where it does not filter VLANs, all of its
/// ports carry those of `srVlan` (VLAN 2 with tags when it is empty), and `vlans` and `trees` do not matter.
/// Without any spanning tree, a port is no member of a VLAN whose frames do not pass.
BridgeFacts bridgeFacts(const Device& bridge, const std::map<unsigned, Device>& devices,
                        const VlanTable& vlans, const State::FlatMap<VlanId, bool>& srVlan,
                        const VlanTrees& trees = {});

}  // namespace Linux
