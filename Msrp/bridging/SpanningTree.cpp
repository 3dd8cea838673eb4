/// Spanning-tree topologies: which ports forward, and by what name this bridge goes.
#include "Msrp/MsrpSm.h"

namespace Msrp {

namespace {
using Bridging::Topology::PortState;
constexpr U64 defaultBridgePriority = 0x8000;
}  // namespace

std::string MsrpSm::baseSpanningTreeTopo(IntfId intf) const {
    return inputs_.msrpLib->baseSpanningTreeTopo(intf);
}

bool MsrpSm::isPortForwarding(IntfId intf) const {
    const std::string base = baseSpanningTreeTopo(intf);
    if (base.empty()) return false;
    const auto topo = inputs_.bridgingTopoConfig->topoConfig(base);
    const auto port = topo ? topo->topoPortConfig(intf) : nullptr;
    return port && port->state() == PortState::forwarding;
}

void MsrpSm::setPortState(IntfId intf) {
    const auto intfStatus = status()->intfStatus(intf);
    if (!intfStatus || standbyMode()) return;
    const bool forwarding = isPortForwarding(intf);
    const MsrpPortState state = forwarding ? MsrpPortState::Forwarding : MsrpPortState::Blocked;
    if (intfStatus->portState() == state) return;
    intfStatus->portStateIs(state);
    if (forwarding) {
        trace("Interface ", intf, " port state is forwarding");
        log(MSRP_NOTIF, Runtime::format("%s port state is forwarding", intf));
    } else {
        trace("Interface ", intf, " port state is blocked");
        log(MSRP_ERROR, Runtime::format("%s port state is blocked", intf));
    }
}

void MsrpSm::handlePortState(const std::string& topoName, IntfId intf) {
    if (!actsOn(intf)) return;
    const auto* port = followers_.topoPort(topoName, intf);
    if (port == nullptr || port->state() == PortState::unknown) return;
    trace("MsrpSm::handlePortState( ", topoName, ", ", intf, " )");
    ringTrace("handlePortState", intf.number());
    const std::string base = baseSpanningTreeTopo(intf);
    const bool forwarding = isPortForwarding(intf);
    const bool published = status()->intfStatus(intf)->portState() == MsrpPortState::Forwarding;
    if (topoName == base && published == forwarding) return;
    setPortState(intf);
    if (!forwarding || topoName == base) {
        handleIntfEnable(intf);
    } else {
        handleVlanPortConfig(topoName, intf);
    }
}

void MsrpSm::closeTopoPort(const std::string& name, const Bridging::Topology::TopoPort& port) {
    const IntfId intf = port.intfId();
    if (!actsOn(intf)) return;
    trace("Closing port ", intf, " of topology ", name);
    const std::string base = baseSpanningTreeTopo(intf);
    const bool published = status()->intfStatus(intf)->portState() == MsrpPortState::Forwarding;
    // With another spanning-tree mode the port may have another base topology, or none.
    if (name == base || published != isPortForwarding(intf)) {
        refreshPort(intf);
        return;
    }
    for (auto vlan = port.vlanPortConfig().firstKey(); vlan; vlan = port.vlanPortConfig().nextKey(*vlan)) {
        for (const SrClassId srClass : bothClasses) {
            deregisterSrClassStreams(intf, srClass, vlan->value(), TalkerFailureCode::vlanBlocked);
        }
    }
}

U64 MsrpSm::selfBridgeId(IntfId intf) const {
    const U64 mac = inputs_.brConfig->bridgeMac().number();
    U64 priority = defaultBridgePriority;
    const auto priorityOf = [&](const std::string& stpInstance, const std::string& mstInstance) {
        const auto stp = inputs_.stpStatus->stpInstanceStatus(stpInstance);
        const auto mst = stp ? stp->mstInstanceStatus(mstInstance) : nullptr;
        if (mst) priority = mst->bridgePriority();
    };
    switch (inputs_.stpStatus->mode()) {
        case Stp::Mode::Rstp:
        case Stp::Mode::Mstp:
            priorityOf(std::string{Stp::mstName}, std::string{Stp::cistName});
            break;
        case Stp::Mode::Pvst: {
            const VlanId vlan = inputs_.msrpLib->getNativeVlanId(intf);
            const auto vlanConfig = inputs_.brConfig->vlanConfig(vlan);
            Runtime::require(vlanConfig != nullptr, "vlanConfig && \"Native vlan must be configured\"");
            const std::string name = Stp::pvstInstanceName(*vlanConfig);
            priorityOf(name, name);
            break;
        }
        case Stp::Mode::None:
        case Stp::Mode::Disabled:
            break;
    }
    return priority << 48 | mac;
}

U64 MsrpSm::failureBridgeId(IntfId intf) const {
    if (!baseSpanningTreeTopo(intf).empty()) return selfBridgeId(intf);
    return defaultBridgePriority << 48 | inputs_.brConfig->bridgeMac().number();
}

}  // namespace Msrp
