#include "Switch/TopologyAgent.h"

#include <set>
#include <string>

namespace Bridging {

TopologyAgent::TopologyAgent(std::shared_ptr<const Config> bridging, std::shared_ptr<const Stp::Status> stp,
                             std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ports,
                             std::shared_ptr<Topology::Config> topology)
    : bridging_{std::move(bridging)},
      stp_{std::move(stp)},
      ports_{std::move(ports)},
      topology_{std::move(topology)} {
    bridgingReactor_ = bridging_->watch([this](const State::Change& change) {
        if (change.field != "bridgeMac" && change.field != "nativeVlan" && change.field != "switchportMode")
            refresh();
    });
    stpReactor_ = stp_->react([this](const State::Change& change) {
        if (change.field == "mode") refresh();
    });
    portsReactor_ = ports_->react([this](const State::Change&) { refresh(); });
    topologyReactor_ = topology_->watch([this](const State::Change& change) {
        if (change.field != "state") refresh();
    });
    refresh();
}

void TopologyAgent::refresh() {
    if (refreshing_) return;  // a change of our own
    refreshing_ = true;
    keepOwnTopology();
    // A VLAN that moves leaves its old topology before it enters the new one: the other way round it would
    // look blocked.
    forEachPort([this](const std::string& topo, IntfId intf, Topology::TopoPortConfig& port) {
        const auto& vlans = port.vlanPortConfig();
        for (auto vlan = vlans.firstKey(); vlan; vlan = vlans.nextKey(*vlan)) {
            if (!member(topo, *vlan, intf)) port.vlanPortConfigDel(*vlan);
        }
    });
    forEachPort([this](const std::string& topo, IntfId intf, Topology::TopoPortConfig& port) {
        const auto& vlans = bridging_->vlanConfig();
        for (auto vlan = vlans.firstKey(); vlan; vlan = vlans.nextKey(*vlan)) {
            if (const auto held = member(topo, *vlan, intf)) port.vlanPortConfigIs(*vlan, held->tagged());
        }
    });
    refreshing_ = false;
}

void TopologyAgent::keepOwnTopology() {
    const std::string own{Stp::noStpName};
    if (stp_->mode() != Stp::Mode::None) {
        topology_->topoConfigDel(own);
        return;
    }
    std::set<IntfId> ports;
    ports_->intfStatus().each([&](IntfId intf, const auto&) { ports.insert(intf); });
    bridging_->vlanConfig().each([&](VlanId, const VlanConfig& vlan) {
        vlan.intf().each([&](IntfId intf, const auto&) { ports.insert(intf); });
    });

    const auto topo = topology_->topoConfigIs(own);
    for (auto intf = topo->topoPortConfig().firstKey(); intf; intf = topo->topoPortConfig().nextKey(*intf)) {
        if (!ports.contains(*intf)) topo->topoPortConfigDel(*intf);
    }
    for (const IntfId intf : ports) topo->topoPortConfigIs(intf)->stateIs(Topology::PortState::forwarding);
}

std::shared_ptr<const VlanPortConfig> TopologyAgent::member(const std::string& topo, VlanId vlan,
                                                            IntfId intf) const {
    // The own topology carries every VLAN, whatever the map prepares for other modes.
    if (topo != Stp::noStpName && topology_->vlanTopology().get(vlan) != topo) return nullptr;
    const auto config = bridging_->vlanConfig(vlan);
    return config ? config->intf(intf) : nullptr;
}

void TopologyAgent::forEachPort(
    const std::function<void(const std::string&, IntfId, Topology::TopoPortConfig&)>& visit) {
    const auto& topos = topology_->topoConfig();
    for (auto name = topos.firstKey(); name; name = topos.nextKey(*name)) {
        const auto topo = topology_->topoConfig(*name);
        const auto& ports = topo->topoPortConfig();
        for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
            if (const auto port = topo->topoPortConfig(*intf)) visit(*name, *intf, *port);
        }
    }
}

}  // namespace Bridging
