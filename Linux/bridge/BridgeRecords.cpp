#include "Linux/bridge/BridgeRecords.h"

#include <algorithm>
#include <set>
#include <string>

namespace Linux {

namespace {

/// The VLANs that some port carries.
VlanSet carried(const BridgeFacts& facts) {
    VlanSet all;
    for (const auto& [intf, port] : facts.ports) all |= port.vlans.member;
    return all;
}

/// The topology that a VLAN follows; `common` where it has none of its own.
std::string treeOf(const BridgeFacts& facts, VlanId vlan, const std::string& common) {
    const auto own = facts.trees.find(vlan);
    return own != facts.trees.end() ? Stp::mstInstanceName(own->second) : common;
}

/// Those that have ports of their own state, the common one included.
std::set<std::string> topologies(const BridgeFacts& facts, const std::string& common) {
    std::set<std::string> names{common};
    for (const auto& [intf, port] : facts.ports) {
        for (const auto& [instance, state] : port.trees) names.insert(Stp::mstInstanceName(instance));
    }
    return names;
}

void endPorts(const BridgeRecords& records, const BridgeFacts& facts) {
    const auto& topos = records.topology->topoConfig();
    for (auto name = topos.firstKey(); name; name = topos.nextKey(*name)) {
        const auto topo = records.topology->topoConfig(*name);
        const auto& ports = topo->topoPortConfig();
        for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
            if (!facts.ports.contains(*intf)) topo->topoPortConfigDel(*intf);
        }
    }
    const auto& ports = records.bridging->switchIntfConfig();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        if (!facts.ports.contains(*intf)) records.bridging->switchIntfConfigDel(*intf);
    }
}

void endVlans(const BridgeRecords& records, const BridgeFacts& facts, const VlanSet& known) {
    const auto& vlans = records.bridging->vlanConfig();
    for (auto id = vlans.firstKey(); id; id = vlans.nextKey(*id)) {
        const auto vlan = records.bridging->vlanConfigIs(*id);
        const auto& members = vlan->intf();
        for (auto intf = members.firstKey(); intf; intf = members.nextKey(*intf)) {
            const auto port = facts.ports.find(*intf);
            if (port == facts.ports.end() || !port->second.vlans.member.test(id->value())) {
                vlan->intfDel(*intf);
            } else if (!port->second.vlans.tagged.test(id->value())) {
                vlan->intfIs(*intf, false);
            }
        }
        if (!known.test(id->value())) records.bridging->vlanConfigDel(*id);
    }
}

/// Everything that is needed for `topology` to take over, if it has not: only then the mode says so.
void keepPorts(const BridgeRecords& records, const BridgeFacts& facts, const VlanSet& known,
               const std::string& topology) {
    if (facts.mac != EthAddr{}) records.bridging->bridgeMacIs(facts.mac);
    const auto topo = records.topology->topoConfigIs(topology);
    for (const auto& [intf, port] : facts.ports) {
        topo->topoPortConfigIs(intf)->stateIs(port.state);
        for (const auto& [instance, state] : port.trees) {
            records.topology->topoConfigIs(Stp::mstInstanceName(instance))
                ->topoPortConfigIs(intf)
                ->stateIs(state);
        }
    }
    for (const auto& [intf, port] : facts.ports) {
        const auto settings = records.bridging->switchIntfConfigIs(intf);
        settings->nativeVlanIs(port.vlans.pvid.value_or(VlanId{1}));
        settings->switchportModeIs(Bridging::SwitchportMode::trunk);
    }
    if (facts.spanningTree) {
        records.stp->stpInstanceStatusIs(std::string{Stp::mstName})
            ->mstInstanceStatusIs(std::string{Stp::cistName})
            ->bridgePriorityIs(facts.priority);
        for (unsigned id = VlanId::min; id <= VlanId::max; ++id) {
            if (known.test(id))
                records.topology->vlanTopologyIs(VlanId{id}, treeOf(facts, VlanId{id}, topology));
        }
    }
    records.stp->modeIs(facts.multiple       ? Stp::Mode::Mstp
                        : facts.spanningTree ? Stp::Mode::Rstp
                                             : Stp::Mode::None);
}

void beginVlans(const BridgeRecords& records, const BridgeFacts& facts, const VlanSet& known) {
    for (unsigned id = VlanId::min; id <= VlanId::max; ++id) {
        if (!known.test(id)) continue;
        const auto vlan = records.bridging->vlanConfigIs(VlanId{id});
        for (const auto& [intf, port] : facts.ports) {
            if (port.vlans.member.test(id)) vlan->intfIs(intf, port.vlans.tagged.test(id));
        }
    }
}

/// What no VLAN and no port needs any more.
void endTopologies(const BridgeRecords& records, const BridgeFacts& facts, const VlanSet& known,
                   const std::string& topology) {
    const auto& vlans = records.topology->vlanTopology();
    for (auto id = vlans.firstKey(); id; id = vlans.nextKey(*id)) {
        if (!facts.spanningTree || !known.test(id->value())) records.topology->vlanTopologyDel(*id);
    }
    const auto& topos = records.topology->topoConfig();
    const std::set<std::string> used = topologies(facts, topology);
    for (auto name = topos.firstKey(); name; name = topos.nextKey(*name)) {
        if (!used.contains(*name)) records.topology->topoConfigDel(*name);
    }
    for (const auto& [intf, port] : facts.ports) {
        for (const std::string& name : used) {
            const bool own = std::ranges::any_of(
                port.trees, [&](const auto& tree) { return Stp::mstInstanceName(tree.first) == name; });
            if (name != topology && !own) records.topology->topoConfigIs(name)->topoPortConfigDel(intf);
        }
    }
    if (!facts.spanningTree) records.stp->stpInstanceStatusDel(std::string{Stp::mstName});
}

}  // namespace

void bringInLine(const BridgeRecords& records, const BridgeFacts& facts) {
    const VlanSet known = carried(facts);
    const std::string topology{facts.spanningTree ? Stp::cistName : Stp::noStpName};
    endPorts(records, facts);
    endVlans(records, facts, known);
    keepPorts(records, facts, known, topology);
    beginVlans(records, facts, known);
    endTopologies(records, facts, known, topology);
}

}  // namespace Linux
