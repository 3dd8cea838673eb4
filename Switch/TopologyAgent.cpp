#include "Switch/TopologyAgent.h"

#include <set>
#include <string>

namespace Bridging {

namespace {

/// Visits that one key, or else all that are in `entries`.
template <class K, class E, class F>
void forEachKey(std::optional<K> only, const State::Collection<K, E>& entries, F&& visit) {
    if (only) return visit(*only);
    for (auto key = entries.firstKey(); key; key = entries.nextKey(*key)) visit(*key);
}

}  // namespace

TopologyAgent::Scope TopologyAgent::scope(const State::Change& change) {
    const auto* vlan = change.key<VlanId>();
    const auto* intf = change.key<IntfId>();
    if (vlan != nullptr && (change.field == State::fieldName<Bridging::Config>("vlanConfig") ||
                            change.field == State::fieldName<Topology::Config>("vlanTopology"))) {
        return {.vlan = *vlan, .intf = {}};
    }
    if (intf != nullptr && change.field == State::fieldName<Topology::TopoConfig>("topoPortConfig"))
        return {.vlan = {}, .intf = *intf};
    Scope found{.vlan = VlanPorts::vlanOf(change), .intf = {}};
    if (!found.vlan) return {};
    if (intf != nullptr) found.intf = *intf;
    if (const auto* members = dynamic_cast<const VlanConfig*>(change.entity.parent())) {
        members->intf().each([&](IntfId id, const VlanPortConfig& member) {
            if (&member == &change.entity) found.intf = id;
        });
    }
    return found;
}

TopologyAgent::TopologyAgent(std::shared_ptr<const Config> bridging, std::shared_ptr<const Stp::Status> stp,
                             std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ports,
                             std::shared_ptr<Topology::Config> topology)
    : bridging_{std::move(bridging)},
      stp_{std::move(stp)},
      ports_{std::move(ports)},
      topology_{std::move(topology)},
      vlanPorts_{bridging_} {
    bridgingReactor_ = bridging_->watch([this](const State::Change& change) {
        const Scope changed = scope(change);
        if (changed.vlan) refresh(changed, vlanPorts_.refresh(*changed.vlan));
    });
    stpReactor_ = stp_->react([this](const State::Change& change) {
        if (change.field == State::fieldName<Stp::Status>("mode")) refresh({});
    });
    if (ports_) portsReactor_ = ports_->react([this](const State::Change&) { refresh({}); });
    topologyReactor_ = topology_->watch([this](const State::Change& change) {
        if (change.field != "state") refresh(scope(change));
    });
    refresh({});
}

void TopologyAgent::refresh(const Scope& scope, bool ports) {
    if (refreshing_) return;  // a change of our own
    refreshing_ = true;
    if (ports_ && ports) keepOwnTopology();
    // A VLAN that moves leaves its old topology before it enters the new one: the other way round it would
    // look blocked.
    forEachPort(scope, [&](const std::string& topo, IntfId intf, Topology::TopoPortConfig& port) {
        forEachKey(scope.vlan, port.vlanPortConfig(), [&](VlanId vlan) {
            if (!member(topo, vlan, intf)) port.vlanPortConfigDel(vlan);
        });
    });
    forEachPort(scope, [&](const std::string& topo, IntfId intf, Topology::TopoPortConfig& port) {
        forEachKey(scope.vlan, bridging_->vlanConfig(), [&](VlanId vlan) {
            if (const auto held = member(topo, vlan, intf)) port.vlanPortConfigIs(vlan, held->tagged());
        });
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
    vlanPorts_.each([&](IntfId intf) { ports.insert(intf); });

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
    const Scope& scope,
    const std::function<void(const std::string&, IntfId, Topology::TopoPortConfig&)>& visit) {
    const auto& topos = topology_->topoConfig();
    for (auto name = topos.firstKey(); name; name = topos.nextKey(*name)) {
        const auto topo = topology_->topoConfig(*name);
        forEachKey(scope.intf, topo->topoPortConfig(), [&](IntfId intf) {
            if (const auto port = topo->topoPortConfig(intf)) visit(*name, intf, *port);
        });
    }
}

}  // namespace Bridging
