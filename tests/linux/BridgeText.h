/// The records of bridging as one line.
#pragma once

#include "Linux/bridge/BridgeRecords.h"
#include "Runtime/Text.h"

#include <map>
#include <string>

/// "Rstp 4096; Cist p1 forwarding p3 blocking; 2@Cist p1+ p3-; native p1 1 p3 2", where + is a port that
/// tags.
inline std::string described(const Linux::BridgeRecords& records) {
    const auto inOrder = [](std::string head, const std::map<std::string, std::string>& ports) {
        for (const auto& [name, what] : ports) head += ' ' + name + what;
        return head;
    };
    std::string text{State::enumText(records.stp->mode())};
    const auto instance = records.stp->stpInstanceStatus("Mst");
    const auto cist = instance ? instance->mstInstanceStatus("Cist") : nullptr;
    if (cist) text += Runtime::concat(' ', cist->bridgePriority());
    records.topology->topoConfig().each([&](const std::string& name, const auto& topo) {
        std::map<std::string, std::string> ports;
        topo.topoPortConfig().each([&](IntfId intf, const auto& port) {
            ports[intf.name()] = Runtime::concat(' ', State::enumText(port.state()));
        });
        text += inOrder("; " + name, ports);
    });
    const auto& topologies = records.topology->vlanTopology();
    records.bridging->vlanConfig().each([&](VlanId id, const auto& vlan) {
        std::map<std::string, std::string> ports;
        vlan.intf().each(
            [&](IntfId intf, const auto& port) { ports[intf.name()] = port.tagged() ? "+" : "-"; });
        const std::string topology = topologies.get(id);
        text += inOrder(Runtime::concat("; ", id, topology.empty() ? "" : "@", topology), ports);
    });
    std::map<std::string, std::string> natives;
    records.bridging->switchIntfConfig().each([&](IntfId intf, const auto& port) {
        natives[intf.name()] = Runtime::concat(' ', port.nativeVlan());
    });
    return natives.empty() ? text : inOrder(text + "; native", natives);
}

inline Linux::BridgeRecords bridgeRecords() {
    return {std::make_shared<Bridging::Config>(), std::make_shared<Bridging::Topology::Config>(),
            std::make_shared<Stp::Status>()};
}
