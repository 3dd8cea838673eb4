/// MVRP (IEEE 802.1Q clause 11): VLANs that peers ask for become memberships of their ports, and are passed
/// on to the ports from which they can be reached.
///
/// It is the application of an MRP engine of its own, and decides what each port declares (Propagation.h).
/// Memberships are asked for in a record (Switch/VlanMembers.h) and read where all memberships stand, in
/// "bridging/config": what is there and was not asked for is the administrator's, and counts as registered
/// for ever.
#pragma once

#include "Mrp/MrpLib.h"
#include "Mvrp/Propagation.h"
#include "Mvrp/Records.h"
#include "Runtime/Loop.h"
#include "Runtime/SystemLog.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Interface.h"
#include "Switch/Stp.h"
#include "Switch/VlanMembers.h"

#include <functional>
#include <map>
#include <memory>
#include <set>

namespace Mvrp {

class MvrpSm final : public Mrp::MrpLib {
public:
    struct Inputs {
        std::shared_ptr<const Config> config;
        std::shared_ptr<Status> status;
        std::shared_ptr<Bridging::VlanRequests> requests;
        std::shared_ptr<const Bridging::VlanMembers> members;
        std::shared_ptr<const Bridging::Config> bridging;
        std::shared_ptr<const Bridging::Topology::Config> topology;
        std::shared_ptr<const Stp::Status> stp;
        std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> links;
        /// The VLAN that streams use on a port.
        std::function<VlanId(IntfId)> streamVlan;
    };

    /// Loop and log must outlive it.  Does nothing before `begin`.
    MvrpSm(Inputs inputs, Runtime::Loop& loop, const Runtime::SystemLog& systemLog);
    ~MvrpSm() override;

    /// Starts on all ports that are enabled and have a link; the engine has bound itself by now.
    void begin();
    /// Withdraws everything, from peers and from the switch.
    void end();
    /// What `Inputs::streamVlan` answers has changed.
    void streamVlansChanged() { refreshSoon(); }

    [[nodiscard]] const std::type_info& fwkType() const override { return typeid(MvrpSm); }
    /// Throws std::range_error for a number that is no VLAN's.
    std::uint8_t mrpJoinIndication(const Mrp::MrpParameters& params) override;
    void mrpLeaveIndication(const Mrp::MrpParameters& params) override;

private:
    struct Port {
        VlanSet allowed;
        VlanSet refused;
        VlanSet declared;
        VlanSet given;  ///< memberships that are not the administrator's
    };

    [[nodiscard]] VlanId incomingVlan() const;
    [[nodiscard]] bool mayRun(IntfId intf) const;
    [[nodiscard]] VlanSet allowed(IntfId intf) const;
    /// Takes in what the records say, once for all that has changed in a turn of the loop.
    void refresh();
    void refreshFixed();
    void refreshForwarding();
    void refreshSoon();
    void startPort(IntfId intf);
    void stopPort(IntfId intf);
    void allowedChanged(IntfId intf, Port& port, const VlanSet& now);
    /// Declares what each port is to declare now.
    void declareAll(const std::set<IntfId>& opened);
    /// The same for one VLAN; `from` is the port that said New, or none.
    void declareOne(VlanId vlan, IntfId from);
    void declare(IntfId intf, VlanId vlan, std::uint8_t request);
    void flush(IntfId intf, VlanId vlan) { inputs_.requests->portIs(intf)->flushInc(vlan); }
    void publishSoon(IntfId intf);
    void publish();

    const Inputs inputs_;
    const Runtime::SystemLog& systemLog_;
    bool running_ = false;
    VlanSet stale_;  ///< whose members are to be looked at
    bool topologyStale_ = true;
    std::map<IntfId, Port> ports_;
    std::map<IntfId, PortVlans> vlans_;  ///< of the same ports
    std::set<IntfId> unpublished_;
    Runtime::Timer refresh_;
    Runtime::Timer publish_;
    std::vector<State::Reactor> reactors_;
};

}  // namespace Mvrp
