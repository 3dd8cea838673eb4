#include "Msrp/talker/TalkerValidation.h"

#include "Msrp/types/Format.h"
#include "Runtime/SystemLog.h"

namespace Msrp {

namespace {

using Runtime::format;
using Why = TalkerVerdict::Why;

constexpr U16 maxVlanId = 4094;

/// The two kinds of declaration word their discards alike but for these pieces.
struct Wording {
    std::string_view join;
    std::string_view range;
};
constexpr Wording advertise{"TalkerAdvJoin", "91:e0:f0:00:00:00 - 91:e0:f0:ff:ff:ff"};
constexpr Wording failed{"TalkerFailedJoin", "91:e0:f0:00:00:00 -91:e0:f0:ff:ff:ff"};

TalkerVerdict checkAddress(const TalkerFacts& f, const Wording& w) {
    if (!f.macDa.isMulticast()) {
        return {format("Discard streamId 0x%s %s on %s with non-multicast Mac DA %s", HexId{f.streamId},
                       w.join, f.intf, f.macDa),
                {},
                Why::notMulticast};
    }
    if (!isAvbEthAddr(f.macDa)) {
        return {format("Discard streamId 0x%s %s on %s with Mac DA: %s  not in the range %s",
                       HexId{f.streamId}, w.join, f.intf, f.macDa, w.range),
                {},
                Why::notForStreams};
    }
    return {};
}

TalkerVerdict checkClass(const TalkerFacts& f, const Wording& w) {
    TalkerVerdict verdict;
    if (f.priority == f.priorityA) {
        verdict.srClass = SrClassId::SrClassA;
    } else if (f.priority == f.priorityB) {
        verdict.srClass = SrClassId::SrClassB;
    } else {
        verdict.discard = format("Discard streamId 0x%s %s on %s with non SR Class priority %d",
                                 HexId{f.streamId}, w.join, f.intf, f.priority);
        verdict.why = Why::noClass;
        return verdict;
    }
    const SrClassState state = verdict.srClass == SrClassId::SrClassA ? f.stateA : f.stateB;
    if (!isActive(state)) {
        verdict.discard = format("Discard streamId 0x%s %s on %s since %s is %s", HexId{f.streamId}, w.join,
                                 f.intf, srClassName(verdict.srClass), srState(state));
        verdict.why = Why::classAway;
    }
    return verdict;
}

}  // namespace

TalkerVerdict checkTalkerAdvertise(const TalkerFacts& f) {
    if (f.vlanId == 0 || f.vlanId > maxVlanId)
        return {format("Discard vlanId %d out of range", f.vlanId), {}, Why::vlanOutOfRange};
    if (auto verdict = checkAddress(f, advertise); verdict.why != Why::taken) return verdict;
    if (f.knownIngress && f.knownIngress != f.intf) {
        return {format("Discard streamId 0x%s TalkerAdvJoin on %s since streamId is already in use on %s",
                       HexId{f.streamId}, f.intf, f.knownIngress),
                {},
                Why::otherPort};
    }
    return checkClass(f, advertise);
}

TalkerVerdict checkTalkerFailed(const TalkerFacts& f) {
    if (auto verdict = checkAddress(f, failed); verdict.why != Why::taken) return verdict;
    return checkClass(f, failed);
}

}  // namespace Msrp
