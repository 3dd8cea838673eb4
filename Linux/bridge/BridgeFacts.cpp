#include "Linux/bridge/BridgeFacts.h"

namespace Linux {

namespace {

using Bridging::Topology::PortState;

constexpr VlanId defaultSrVlan{2};

PortState portState(BridgePortState state) {
    switch (state) {
        case BridgePortState::forwarding:
            return PortState::forwarding;
        case BridgePortState::learning:
            return PortState::learning;
        case BridgePortState::disabled:
        case BridgePortState::listening:
        case BridgePortState::blocking:
            break;
    }
    return PortState::blocking;
}

/// What every port of a bridge carries that lets all VLANs pass as they are.
PortVlans unfiltered(const State::FlatMap<VlanId, bool>& srVlan) {
    PortVlans vlans;
    const auto carry = [&](VlanId id, bool tagged) {
        vlans.member.set(id.value());
        vlans.tagged.set(id.value(), tagged);
    };
    for (const auto& [id, tagged] : srVlan) carry(id, tagged);
    if (srVlan.empty()) carry(defaultSrVlan, true);
    return vlans;
}

}  // namespace

BridgeFacts bridgeFacts(const Device& bridge, const std::map<unsigned, Device>& devices,
                        const VlanTable& vlans, const State::FlatMap<VlanId, bool>& srVlan,
                        const VlanTrees& trees) {
    const BridgeSettings& settings = *bridge.bridgeSettings;
    BridgeFacts facts;
    facts.mac = settings.mac;
    facts.priority = settings.priority;
    facts.multiple = settings.multipleSpanningTrees && settings.vlanFiltering;
    facts.spanningTree = settings.spanningTree || facts.multiple;
    if (facts.spanningTree && settings.vlanFiltering) facts.trees = trees;
    const PortVlans everywhere = settings.vlanFiltering ? PortVlans{} : unfiltered(srVlan);
    for (const auto& [ifindex, device] : devices) {
        if (device.bridge != bridge.ifindex) continue;
        BridgeFacts::Port port{.state = portState(device.portState), .vlans = everywhere, .trees = {}};
        if (const auto own = vlans.find(ifindex); settings.vlanFiltering && own != vlans.end()) {
            port.vlans = own->second;
        }
        if (!facts.spanningTree) {
            port.vlans.member &= ~port.vlans.blocked;
            port.vlans.tagged &= port.vlans.member;
        }
        // With an instance for each, the port's state is that of the common one alone.
        const bool passes = facts.multiple || port.state == PortState::forwarding;
        for (const auto& [vlan, instance] : facts.trees) {
            if (!port.vlans.member.test(vlan.value())) continue;
            const bool forwards = passes && !port.vlans.blocked.test(vlan.value());
            // A VLAN that came to the port later has another state at first; what blocks counts.
            const auto held = port.trees.try_emplace(instance, PortState::forwarding).first;
            if (!forwards) held->second = PortState::blocking;
        }
        port.vlans.blocked.reset();
        facts.ports.insert_or_assign(IntfId{device.name}, port);
    }
    return facts;
}

}  // namespace Linux
