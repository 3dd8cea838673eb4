/// Spanning-tree topologies as the bridge is to carry them out: which ports each has, in which state, and
/// with which VLANs.
#pragma once

#include "State/Record.h"
#include "Switch/Bridging.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Bridging::Topology {

enum class PortState : std::uint8_t { unknown = 0, blocking = 1, learning = 2, forwarding = 3 };
constexpr auto portStateNames =
    std::to_array<State::EnumName<PortState>>({{PortState::unknown, "unknown"},
                                               {PortState::blocking, "blocking"},
                                               {PortState::learning, "learning"},
                                               {PortState::forwarding, "forwarding"}});
constexpr const auto& enumNames(PortState) { return portStateNames; }

/// One port of one topology.
class TopoPortConfig : public State::Record<TopoPortConfig> {
public:
    static constexpr std::string_view type = "Bridging::Topology::TopoPortConfig";
    explicit TopoPortConfig(IntfId id) : intfId_{id} {}

    [[nodiscard]] IntfId intfId() const { return intfId_; }
    [[nodiscard]] PortState state() const { return state_; }
    void stateIs(PortState v) { assign(state_, v, "state"); }

    /// The VLANs of this topology that the port is a member of; kept by `Bridging::TopologyAgent`.
    [[nodiscard]] const State::Collection<VlanId, VlanPortConfig>& vlanPortConfig() const {
        return vlanPortConfig_;
    }
    [[nodiscard]] std::shared_ptr<const VlanPortConfig> vlanPortConfig(VlanId id) const {
        return vlanPortConfig_.get(id);
    }
    /// Takes the VLAN in, or changes how it is carried.
    void vlanPortConfigIs(VlanId id, bool tagged) {
        if (const auto held = vlanPortConfig_.get(id)) {
            held->taggedIs(tagged);
        } else {
            putChild(vlanPortConfig_, id, std::make_shared<VlanPortConfig>(id, tagged), "vlanPortConfig");
        }
    }
    void vlanPortConfigDel(VlanId id) { delChild(vlanPortConfig_, id, "vlanPortConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("state", &TopoPortConfig::state_));
        each(State::collection("vlanPortConfig", &TopoPortConfig::vlanPortConfig_));
    }

private:
    IntfId intfId_;
    PortState state_ = PortState::unknown;
    State::Collection<VlanId, VlanPortConfig> vlanPortConfig_;
};

class TopoConfig : public State::Record<TopoConfig> {
public:
    static constexpr std::string_view type = "Bridging::Topology::TopoConfig";
    explicit TopoConfig(std::string name) : name_{std::move(name)} {}

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] const State::Collection<IntfId, TopoPortConfig>& topoPortConfig() const {
        return topoPortConfig_;
    }
    [[nodiscard]] std::shared_ptr<const TopoPortConfig> topoPortConfig(IntfId id) const {
        return topoPortConfig_.get(id);
    }
    [[nodiscard]] std::shared_ptr<TopoPortConfig> topoPortConfig(IntfId id) {
        return topoPortConfig_.get(id);
    }
    std::shared_ptr<TopoPortConfig> topoPortConfigIs(IntfId id) {
        return makeChild(topoPortConfig_, id, "topoPortConfig");
    }
    void topoPortConfigDel(IntfId id) { delChild(topoPortConfig_, id, "topoPortConfig"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("topoPortConfig", &TopoConfig::topoPortConfig_));
    }

private:
    std::string name_;
    State::Collection<IntfId, TopoPortConfig> topoPortConfig_;
};

/// "bridging/topology/config"
class Config : public State::Record<Config> {
public:
    static constexpr std::string_view type = "Bridging::Topology::Config";

    [[nodiscard]] const State::Collection<std::string, TopoConfig>& topoConfig() const { return topoConfig_; }
    [[nodiscard]] std::shared_ptr<const TopoConfig> topoConfig(const std::string& name) const {
        return topoConfig_.get(name);
    }
    [[nodiscard]] std::shared_ptr<TopoConfig> topoConfig(const std::string& name) {
        return topoConfig_.get(name);
    }
    std::shared_ptr<TopoConfig> topoConfigIs(const std::string& name) {
        return makeChild(topoConfig_, name, "topoConfig");
    }
    void topoConfigDel(const std::string& name) { delChild(topoConfig_, name, "topoConfig"); }

    /// The topology that carries each VLAN.
    [[nodiscard]] const State::FlatMap<VlanId, std::string>& vlanTopology() const { return vlanTopology_; }
    void vlanTopologyIs(VlanId id, const std::string& name) {
        setEntry(vlanTopology_, id, name, "vlanTopology");
    }
    void vlanTopologyDel(VlanId id) { delEntry(vlanTopology_, id, "vlanTopology"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("topoConfig", &Config::topoConfig_));
        each(State::map("vlanTopology", &Config::vlanTopology_));
    }

private:
    State::Collection<std::string, TopoConfig> topoConfig_;
    State::FlatMap<VlanId, std::string> vlanTopology_;
};

/// "bridging/topology/status": the topologies that the topology library has taken over, with their number of
/// ports.
class Status : public State::Record<Status> {
public:
    static constexpr std::string_view type = "Bridging::Topology::Status";

    [[nodiscard]] const State::FlatMap<std::string, std::uint32_t>& topo() const { return topo_; }
    void topoIs(const std::string& name, std::uint32_t ports) { setEntry(topo_, name, ports, "topo"); }
    void topoDel(const std::string& name) { delEntry(topo_, name, "topo"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("topo", &Status::topo_));
    }

private:
    State::FlatMap<std::string, std::uint32_t> topo_;
};

}  // namespace Bridging::Topology

// Made once, in the source file beside this header.
extern template class State::Record<Bridging::Topology::TopoPortConfig>;
extern template class State::Record<Bridging::Topology::TopoConfig>;
extern template class State::Record<Bridging::Topology::Config>;
extern template class State::Record<Bridging::Topology::Status>;
