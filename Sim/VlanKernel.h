/// The part of a simulated switch that gives ports the VLANs that are asked for.
#pragma once

#include "Switch/Bridging.h"
#include "Switch/VlanMembers.h"

#include <memory>

namespace Sim {

class VlanKernel {
public:
    VlanKernel(std::shared_ptr<const Bridging::VlanRequests> requests,
               std::shared_ptr<Bridging::VlanMembers> members, std::shared_ptr<Bridging::Config> bridging);

private:
    void carryOut();
    void give(IntfId intf, const VlanSet& wanted);

    std::shared_ptr<const Bridging::VlanRequests> requests_;
    std::shared_ptr<Bridging::VlanMembers> members_;
    std::shared_ptr<Bridging::Config> bridging_;
    State::Reactor reactor_;
};

}  // namespace Sim
