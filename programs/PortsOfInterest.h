/// Which interfaces the daemon looks after: those on which MSRP or MVRP is configured and the members of all
/// VLANs, also as the operator changes them.
#pragma once

#include "Msrp/types/Config.h"
#include "Mvrp/Records.h"
#include "Switch/Bridging.h"
#include "Switch/VlanPorts.h"

#include <functional>
#include <memory>
#include <set>

class PortsOfInterest {
public:
    using Told = std::function<void(IntfId intf)>;

    /// `added` is called for each port at once, and later for each new one; `removed` for those that nobody
    /// names any more.
    PortsOfInterest(std::shared_ptr<const Msrp::Config> msrp, std::shared_ptr<const Mvrp::Config> mvrp,
                    std::shared_ptr<const Bridging::Config> bridging, Told added, Told removed);

private:
    void refresh();

    std::shared_ptr<const Msrp::Config> msrp_;
    std::shared_ptr<const Mvrp::Config> mvrp_;
    std::shared_ptr<const Bridging::Config> bridging_;
    Bridging::VlanPorts vlanPorts_;
    Told added_;
    Told removed_;
    std::set<IntfId> ports_;
    State::Reactor msrpReactor_;
    State::Reactor mvrpReactor_;
    State::Reactor bridgingReactor_;
};
