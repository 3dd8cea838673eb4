/// Whether a port may carry a stream at all, bandwidth aside, and what a talker's own port makes of its
/// declaration: ordered checks on what is known, each with its failure code (IEEE 802.1Q 35.2.2.8.7).
#pragma once

#include "Msrp/types/Enums.h"

namespace Msrp {

/// How the switch carries a VLAN on a port.
struct VlanFacts {
    bool configured = false;  ///< the switch has the VLAN
    bool member = false;      ///< the port is in it
    bool forwarding = false;  ///< the VLAN's spanning tree lets the port forward, or there is none
    bool tagged = false;      ///< its frames carry the tag
    bool operator==(const VlanFacts&) const = default;
};

struct VlanVerdict {
    enum class Why : U8 { none, notConfigured, noMember, blocked, untagged };
    TalkerFailureCode code = TalkerFailureCode::noFailure;
    Why why = Why::none;
};

constexpr VlanVerdict judgeVlan(const VlanFacts& f) {
    using enum VlanVerdict::Why;
    if (!f.configured) return {TalkerFailureCode::vlanBlocked, notConfigured};
    if (!f.member) return {TalkerFailureCode::vlanBlocked, noMember};
    if (!f.forwarding) return {TalkerFailureCode::vlanBlocked, blocked};
    if (!f.tagged) return {TalkerFailureCode::vlanTaggingDisabled, untagged};
    return {};
}

/// Of a port to which a talker is to be declared, and which is active for the stream's class.
struct EgressFacts {
    SrClassState state = SrClassState::NotSupported;  ///< for the stream's class
    VlanFacts vlan;
    bool shapingRefused = false;  ///< its queues cannot give the stream bandwidth
};

/// What the port fails every listener with; bandwidth is looked at when there is one.
constexpr TalkerFailureCode judgeEgress(const EgressFacts& f) {
    if (f.state == SrClassState::Boundary) return TalkerFailureCode::egressPortNotAvbCapable;
    if (const VlanVerdict vlan = judgeVlan(f.vlan); vlan.code != TalkerFailureCode::noFailure)
        return vlan.code;
    return f.shapingRefused ? TalkerFailureCode::insufficientResources : TalkerFailureCode::noFailure;
}

/// Of a talker's own port, and of its declaration against what was registered first.
struct IngressFacts {
    SrClassState state = SrClassState::NotSupported;  ///< for the stream's class
    VlanFacts vlan;
    U16 maxFrameSize = 0;
    U16 maxFrameSizeLimit = 0;
    bool latencyChanged = false;
    bool firstValueChanged = false;
};

/// In the order in which an operator can do something about it: the port's VLAN and domain first, then what
/// the talker says.  Whether its address is free is another matter.
constexpr TalkerFailureCode judgeIngress(const IngressFacts& f) {
    using enum TalkerFailureCode;
    if (const VlanVerdict vlan = judgeVlan(f.vlan); vlan.code != noFailure) return vlan.code;
    if (f.state == SrClassState::Boundary) return egressPortNotAvbCapable;
    if (f.maxFrameSize > f.maxFrameSizeLimit) return maxFrameSizeTooLarge;
    if (f.latencyChanged) return latencyChanged;
    return f.firstValueChanged ? firstValueChanged : noFailure;
}

}  // namespace Msrp
