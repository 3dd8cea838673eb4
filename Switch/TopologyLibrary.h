/// The topology library: every spanning-tree topology with its ports, as one structure that agents can
/// follow.
///
/// `TopoLibSm` keeps `TopoLibState` in step with the bridging topology configuration, and tells in the
/// topology status what it has taken over.
#pragma once

#include "Switch/BridgingTopology.h"
#include "Switch/Stp.h"

#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace Bridging::Topology {

/// One member port of one topology.
class TopoPort : public State::Record<TopoPort> {
public:
    static constexpr std::string_view type = "Bridging::Topology::TopoPort";
    explicit TopoPort(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] PortState state() const { return state_; }
    void stateIs(PortState v) { assign(state_, v, "state"); }
    [[nodiscard]] const State::Collection<VlanId, VlanPortConfig>& vlanPortConfig() const {
        return vlanPortConfig_;
    }
    [[nodiscard]] std::shared_ptr<const VlanPortConfig> vlanPortConfig(VlanId id) const {
        return vlanPortConfig_.get(id);
    }
    /// Takes the VLAN in, or changes how it is carried.
    void vlanPortConfigIs(VlanId id, bool tagged);
    void vlanPortConfigDel(VlanId id) { delChild(vlanPortConfig_, id, "vlanPortConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("state", &TopoPort::state_));
        each(State::collection("vlanPortConfig", &TopoPort::vlanPortConfig_));
    }

private:
    IntfId intfId_;
    PortState state_ = PortState::unknown;
    State::Collection<VlanId, VlanPortConfig> vlanPortConfig_;
};

class Topo : public State::Record<Topo> {
public:
    static constexpr std::string_view type = "Bridging::Topology::Topo";
    explicit Topo(std::string name) : name_{std::move(name)} {}

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] const State::Collection<IntfId, TopoPort>& topoPort() const { return topoPort_; }
    [[nodiscard]] std::shared_ptr<const TopoPort> topoPort(IntfId id) const { return topoPort_.get(id); }
    [[nodiscard]] std::shared_ptr<TopoPort> topoPort(IntfId id) { return topoPort_.get(id); }
    std::shared_ptr<TopoPort> topoPortIs(IntfId id) { return makeChild(topoPort_, id, "topoPort"); }
    void topoPortDel(IntfId id) { delChild(topoPort_, id, "topoPort"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("topoPort", &Topo::topoPort_));
    }

private:
    std::string name_;
    State::Collection<IntfId, TopoPort> topoPort_;
};

class TopoLibState : public State::Record<TopoLibState> {
public:
    static constexpr std::string_view type = "Bridging::Topology::TopoLibState";

    [[nodiscard]] const State::Collection<std::string, Topo>& topo() const { return topo_; }
    [[nodiscard]] std::shared_ptr<const Topo> topo(const std::string& name) const { return topo_.get(name); }
    [[nodiscard]] std::shared_ptr<Topo> topo(const std::string& name) { return topo_.get(name); }
    std::shared_ptr<Topo> topoIs(const std::string& name) { return makeChild(topo_, name, "topo"); }
    void topoDel(const std::string& name) { delChild(topo_, name, "topo"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("topo", &TopoLibState::topo_));
    }

private:
    State::Collection<std::string, Topo> topo_;
};

/// Keeps a `TopoLibState` in step with the topology configuration.  Topologies that belong to a spanning-tree
/// mode other than the one in force (a "Cist" while every VLAN has a tree of its own) are left out.
class TopoLibSm {
public:
    TopoLibSm(std::shared_ptr<const Config> config, std::shared_ptr<const Stp::Status> stpStatus,
              std::shared_ptr<Status> status, std::shared_ptr<TopoLibState> state);

private:
    struct PortFollower {
        State::Reactor reactor;
        std::map<VlanId, State::Reactor> vlan;
    };
    struct TopoFollower {
        State::Reactor reactor;
        std::map<IntfId, PortFollower> port;
    };

    void refresh();
    void handleTopo(const std::string& name);
    void handlePort(const std::string& topo, IntfId intf);
    void handleState(const std::string& topo, IntfId intf);
    void handleVlan(const std::string& topo, IntfId intf, VlanId vlan);

    std::shared_ptr<const Config> config_;
    std::shared_ptr<const Stp::Status> stpStatus_;
    std::shared_ptr<Status> status_;
    std::shared_ptr<TopoLibState> state_;
    std::map<std::string, TopoFollower> follower_;
    State::Reactor configReactor_;
    State::Reactor modeReactor_;
};

}  // namespace Bridging::Topology

// Made once, in the source file beside this header.
extern template class State::Record<Bridging::Topology::TopoPort>;
extern template class State::Record<Bridging::Topology::Topo>;
extern template class State::Record<Bridging::Topology::TopoLibState>;
