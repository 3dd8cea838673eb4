/// VLANs: whether a port can carry a stream's VLAN, and what changes when that changes.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Msrp/types/Format.h"

namespace Msrp {

namespace {
using Code = TalkerFailureCode;
using Bridging::Topology::PortState;
}  // namespace

VlanFacts MsrpSm::vlanFacts(IntfId intf, U16 vlan) const {
    const VlanId vlanId{vlan};  // throws the range error
    VlanFacts facts;
    const auto vlanConfig = inputs_.brConfig->vlanConfig(vlanId);
    if (!vlanConfig) return facts;
    facts.configured = true;
    const auto member = vlanConfig->intf(intf);
    if (!member) return facts;
    facts.member = true;
    facts.tagged = member->tagged();
    facts.forwarding = inputs_.stpStatus->mode() == Stp::Mode::None;
    if (facts.forwarding) return facts;
    const auto* topoName = inputs_.bridgingTopoConfig->vlanTopology().find(vlanId);
    const auto topo = topoName != nullptr ? inputs_.bridgingTopoConfig->topoConfig(*topoName) : nullptr;
    const auto port = topo ? topo->topoPortConfig(intf) : nullptr;
    facts.forwarding = port && port->state() == PortState::forwarding;
    return facts;
}

Code MsrpSm::checkVlanConfig(IntfId intf, const U64& streamId, U16 vlan) {
    const VlanVerdict verdict = judgeVlan(vlanFacts(intf, vlan));
    tellVlan(verdict, intf, streamId, vlan);
    return verdict.code;
}

void MsrpSm::tellVlan(const VlanVerdict& verdict, IntfId intf, U64 streamId, U16 vlan) const {
    const HexId id{streamId};
    switch (verdict.why) {
        case VlanVerdict::Why::none:
            break;
        case VlanVerdict::Why::notConfigured:
            trace("ERROR: StreamId 0x", id, ": Vlan ", vlan, " is not configured on the switch.");
            log(MSRP_ERROR, Runtime::format("StreamId 0x%s Vlan %d is not configured", id, vlan));
            break;
        case VlanVerdict::Why::noMember:
            trace("ERROR: StreamId 0x", id, ": Vlan ", vlan, " on ", intf,
                  " is not configured on this interface.");
            log(MSRP_ERROR, Runtime::format("StreamId 0x%s Vlan %d is not configured on %s", id, vlan, intf));
            break;
        case VlanVerdict::Why::blocked:
            log(MSRP_ERROR, Runtime::format("StreamId 0x%s Vlan %d is blocked on %s", id, vlan, intf));
            break;
        case VlanVerdict::Why::untagged:
            trace("ERROR: StreamId 0x", id, ": Vlan ", vlan, " on ", intf,
                  " is not tagged on this interface.");
            log(MSRP_ERROR,
                Runtime::format("StreamId 0x%s Vlan tagging is disabled on %s for vlan %d", id, intf, vlan));
            break;
    }
}

void MsrpSm::handleVlanPortConfig(const std::string& topoName, IntfId intf) {
    const auto* port = followers_.topoPort(topoName, intf);
    if (port == nullptr) return;
    const auto& vlans = port->vlanPortConfig();
    for (auto vlan = vlans.firstKey(); vlan; vlan = vlans.nextKey(*vlan))
        handleVlanPortConfig(topoName, intf, *vlan);
}

void MsrpSm::handleVlanPortConfig(const std::string& topoName, IntfId intf, VlanId vlan) {
    if (!actsOn(intf)) return;
    trace("MsrpSm::handleVlanPortConfig( ", intf, ", ", vlan, " )");
    ringTrace("handleVlanPortConfig", intf.number(), vlan.value());
    if (vlan == inputs_.msrpLib->getNativeVlanId(intf)) return;
    const auto* port = followers_.topoPort(topoName, intf);
    if (port == nullptr) return;
    const auto topoConfig = inputs_.bridgingTopoConfig->topoConfig(topoName);
    const auto portConfig = topoConfig ? topoConfig->topoPortConfig(intf) : nullptr;
    const bool forwarding =
        port->state() == PortState::forwarding && portConfig && portConfig->state() == PortState::forwarding;
    const auto entry = port->vlanPortConfig(vlan);
    for (const SrClassId srClass : bothClasses) {
        if (!entry || !forwarding) {
            deregisterSrClassStreams(intf, srClass, vlan.value(), Code::vlanBlocked);
        } else if (!entry->tagged()) {
            deregisterSrClassStreams(intf, srClass, vlan.value(), Code::vlanTaggingDisabled);
        } else if (status()->intfStatus(intf)->srClassState(srClass) == SrClassState::Core) {
            registerSrClassStreams(intf, srClass, vlan.value());
        }
    }
}

void MsrpSm::handleNativeVlan(IntfId intf) {
    if (!actsOn(intf)) return;
    trace("MsrpSm::handleNativeVlan( ", intf, " )");
    ringTrace("handleNativeVlan", intf.number());
    if (inputs_.stpStatus->mode() == Stp::Mode::Mstp) return;
    if (inputs_.brConfig->switchIntfConfig(intf)) {
        const std::string base = baseSpanningTreeTopo(intf);
        if (base.empty()) {
            refreshPort(intf);  // without a base topology the port is blocked
        } else {
            handlePortState(base, intf);
        }
        return;
    }
    leaveClasses(intf);
    forgetRegistrations(intf);
}

}  // namespace Msrp
