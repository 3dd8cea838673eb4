/// Keeps the bridging topology configuration complete: the VLAN membership of each topology's ports follows
/// the VLAN configuration, and where no spanning tree runs (mode `None`) and nobody else tells the ports'
/// states, one topology of the agent's own making, "NoStp", has every port forwarding.
#pragma once

#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Interface.h"
#include "Switch/Stp.h"
#include "Switch/VlanPorts.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Bridging {

class TopologyAgent {
public:
    /// `ports` are those that forward where no spanning tree runs; null when another agent keeps topologies
    /// and states, in every mode.
    TopologyAgent(std::shared_ptr<const Config> bridging, std::shared_ptr<const Stp::Status> stp,
                  std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ports,
                  std::shared_ptr<Topology::Config> topology);

private:
    /// What a change is about: one VLAN or all, one port or all.  A bridge may have thousands of VLANs on
    /// every port.
    struct Scope {
        std::optional<VlanId> vlan;
        std::optional<IntfId> intf;
    };
    [[nodiscard]] static Scope scope(const State::Change& change);
    /// `ports`: which ports there are may have changed, too.
    void refresh(const Scope& scope, bool ports = true);
    void keepOwnTopology();
    /// How the port carries the VLAN, where that topology carries it; else null.
    [[nodiscard]] std::shared_ptr<const VlanPortConfig> member(const std::string& topo, VlanId vlan,
                                                               IntfId intf) const;
    /// Calls `visit` for each port of each topology.
    void forEachPort(const Scope& scope,
                     const std::function<void(const std::string&, IntfId, Topology::TopoPortConfig&)>& visit);

    std::shared_ptr<const Config> bridging_;
    std::shared_ptr<const Stp::Status> stp_;
    std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ports_;
    std::shared_ptr<Topology::Config> topology_;
    VlanPorts vlanPorts_;
    bool refreshing_ = false;
    State::Reactor bridgingReactor_;
    State::Reactor stpReactor_;
    State::Reactor portsReactor_;
    State::Reactor topologyReactor_;
};

}  // namespace Bridging
