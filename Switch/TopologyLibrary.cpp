#include "Switch/TopologyLibrary.h"

namespace Bridging::Topology {

namespace {

/// False for a topology that only another spanning-tree mode uses.
bool belongsTo(Stp::Mode mode, std::string_view name) {
    const bool common = name == Stp::cistName || name.starts_with(Stp::mstName);
    const bool perVlan = name.starts_with("Vl");
    const bool none = name == Stp::noStpName;
    switch (mode) {
        case Stp::Mode::None:
            return !common && !perVlan;
        case Stp::Mode::Rstp:
        case Stp::Mode::Mstp:
            return !perVlan && !none;
        case Stp::Mode::Pvst:
            return !common && !none;
        case Stp::Mode::Disabled:
            break;
    }
    return true;
}

}  // namespace

void TopoPort::vlanPortConfigIs(VlanId id, bool tagged) {
    const auto held = vlanPortConfig_.get(id);
    if (!held) {
        putChild(vlanPortConfig_, id, std::make_shared<VlanPortConfig>(id, tagged), "vlanPortConfig");
    } else if (held->tagged() != tagged) {
        held->taggedIs(tagged);
        changed(State::Change{*this, "vlanPortConfig", id});
    }
}

TopoLibSm::TopoLibSm(std::shared_ptr<const Config> config, std::shared_ptr<const Stp::Status> stpStatus,
                     std::shared_ptr<Status> status, std::shared_ptr<TopoLibState> state)
    : config_{std::move(config)},
      stpStatus_{std::move(stpStatus)},
      status_{std::move(status)},
      state_{std::move(state)} {
    configReactor_ = config_->react([this](const State::Change& change) {
        if (const auto* name = change.key<std::string>()) handleTopo(*name);
    });
    modeReactor_ = stpStatus_->react([this](const State::Change& change) {
        if (change.field == State::fieldName<Stp::Status>("mode")) refresh();
    });
    refresh();
}

void TopoLibSm::refresh() {
    // What goes first is dropped first, so that a port is not seen in the topologies of two modes at once.
    for (auto name = state_->topo().firstKey(); name; name = state_->topo().nextKey(*name)) handleTopo(*name);
    for (auto name = config_->topoConfig().firstKey(); name; name = config_->topoConfig().nextKey(*name)) {
        handleTopo(*name);
    }
}

void TopoLibSm::handleTopo(const std::string& name) {
    const auto config = config_->topoConfig(name);
    if (!config || !belongsTo(stpStatus_->mode(), name)) {
        follower_.erase(name);
        status_->topoDel(name);
        state_->topoDel(name);
        return;
    }
    follower_[name].reactor = config->react([this, name](const State::Change& change) {
        if (const auto* intf = change.key<IntfId>()) handlePort(name, *intf);
    });
    state_->topoIs(name);
    for (auto intf = config->topoPortConfig().firstKey(); intf;
         intf = config->topoPortConfig().nextKey(*intf)) {
        handlePort(name, *intf);
    }
    status_->topoIs(name, static_cast<std::uint32_t>(config->topoPortConfig().size()));
}

void TopoLibSm::handlePort(const std::string& topo, IntfId intf) {
    const auto config = config_->topoConfig(topo);
    const auto lib = state_->topo(topo);
    if (!config || !lib) return;
    status_->topoIs(topo, static_cast<std::uint32_t>(config->topoPortConfig().size()));
    const auto port = config->topoPortConfig(intf);
    if (!port) {
        follower_[topo].port.erase(intf);
        lib->topoPortDel(intf);
        return;
    }
    follower_[topo].port[intf].reactor = port->react([this, topo, intf](const State::Change& change) {
        if (change.field == State::fieldName<TopoPortConfig>("state")) handleState(topo, intf);
        if (const auto* vlan = change.key<VlanId>()) handleVlan(topo, intf, *vlan);
    });
    lib->topoPortIs(intf);
    // The state comes first: who follows a VLAN's arrival looks at it.
    handleState(topo, intf);
    for (auto vlan = port->vlanPortConfig().firstKey(); vlan; vlan = port->vlanPortConfig().nextKey(*vlan)) {
        handleVlan(topo, intf, *vlan);
    }
}

void TopoLibSm::handleState(const std::string& topo, IntfId intf) {
    const auto config = config_->topoConfig(topo);
    const auto lib = state_->topo(topo);
    const auto from = config ? config->topoPortConfig(intf) : nullptr;
    const auto to = lib ? lib->topoPort(intf) : nullptr;
    if (from && to) to->stateIs(from->state());
}

void TopoLibSm::handleVlan(const std::string& topo, IntfId intf, VlanId vlan) {
    const auto config = config_->topoConfig(topo);
    const auto lib = state_->topo(topo);
    const auto from = config ? config->topoPortConfig(intf) : nullptr;
    const auto to = lib ? lib->topoPort(intf) : nullptr;
    if (!from || !to) return;
    if (const auto entry = from->vlanPortConfig(vlan)) {
        follower_[topo].port[intf].vlan[vlan] =
            entry->react([this, topo, intf, vlan](const State::Change&) { handleVlan(topo, intf, vlan); });
        to->vlanPortConfigIs(vlan, entry->tagged());
    } else {
        follower_[topo].port[intf].vlan.erase(vlan);
        to->vlanPortConfigDel(vlan);
    }
}

}  // namespace Bridging::Topology

template class State::Record<Bridging::Topology::TopoPort>;
template class State::Record<Bridging::Topology::Topo>;
template class State::Record<Bridging::Topology::TopoLibState>;
