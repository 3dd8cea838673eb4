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
    for (auto name = topology_->topoConfig().firstKey(); name;
         name = topology_->topoConfig().nextKey(*name)) {
        if (const auto topo = topology_->topoConfig(*name)) keepVlans(*topo);
    }
    refreshing_ = false;
}

void TopologyAgent::keepOwnTopology() {
    const std::string own{Stp::noStpName};
    if (stp_->mode() != Stp::Mode::None) {
        for (auto vlan = topology_->vlanTopology().firstKey(); vlan;
             vlan = topology_->vlanTopology().nextKey(*vlan)) {
            if (topology_->vlanTopology().get(*vlan) == own) topology_->vlanTopologyDel(*vlan);
        }
        topology_->topoConfigDel(own);
        return;
    }
    std::set<IntfId> ports;
    ports_->intfStatus().each([&](IntfId intf, const auto&) { ports.insert(intf); });
    bridging_->vlanConfig().each([&](VlanId, const VlanConfig& vlan) {
        vlan.intf().each([&](IntfId intf, const auto&) { ports.insert(intf); });
    });

    for (auto vlan = bridging_->vlanConfig().firstKey(); vlan;
         vlan = bridging_->vlanConfig().nextKey(*vlan)) {
        topology_->vlanTopologyIs(*vlan, own);
    }
    const auto topo = topology_->topoConfigIs(own);
    for (auto intf = topo->topoPortConfig().firstKey(); intf; intf = topo->topoPortConfig().nextKey(*intf)) {
        if (!ports.contains(*intf)) topo->topoPortConfigDel(*intf);
    }
    for (const IntfId intf : ports) topo->topoPortConfigIs(intf)->stateIs(Topology::PortState::forwarding);
}

void TopologyAgent::keepVlans(Topology::TopoConfig& topo) {
    const auto tagged = [&](VlanId vlan, IntfId intf) -> std::shared_ptr<const VlanPortConfig> {
        if (topology_->vlanTopology().get(vlan) != topo.name()) return nullptr;
        const auto config = bridging_->vlanConfig(vlan);
        return config ? config->intf(intf) : nullptr;
    };
    for (auto intf = topo.topoPortConfig().firstKey(); intf; intf = topo.topoPortConfig().nextKey(*intf)) {
        const auto port = topo.topoPortConfig(*intf);
        for (auto vlan = port->vlanPortConfig().firstKey(); vlan;
             vlan = port->vlanPortConfig().nextKey(*vlan)) {
            if (!tagged(*vlan, *intf)) port->vlanPortConfigDel(*vlan);
        }
        for (auto vlan = bridging_->vlanConfig().firstKey(); vlan;
             vlan = bridging_->vlanConfig().nextKey(*vlan)) {
            if (const auto member = tagged(*vlan, *intf)) port->vlanPortConfigIs(*vlan, member->tagged());
        }
    }
}

}  // namespace Bridging
