/// What a port's entry into, or exit from, an SR class means for the streams of that class.
#include "Msrp/MsrpSm.h"
#include "Msrp/types/Format.h"

namespace Msrp {

namespace {

using Code = TalkerFailureCode;

/// The failures that a port's entry into the domain, or a VLAN's arrival on it, can cure.
bool curedByPort(Code code) {
    return code == Code::egressPortNotAvbCapable || code == Code::vlanBlocked ||
           code == Code::vlanTaggingDisabled;
}

bool betweenVlanFailures(Code from, Code to) {
    return (from == Code::vlanBlocked && to == Code::vlanTaggingDisabled) ||
           (from == Code::vlanTaggingDisabled && to == Code::vlanBlocked);
}

}  // namespace

void MsrpSm::registerSrClassStreams(IntfId intf, SrClassId srClass, U16 vlanId) {
    trace("MsrpSm::registerSrClassStreams( ", intf, ", ", srClassName(srClass), ", ", vlanId, " )");
    walkSoon({.intf = intf, .srClass = srClass, .vlanId = vlanId, .code = std::nullopt});
}

void MsrpSm::deregisterSrClassStreams(IntfId intf, SrClassId srClass, U16 vlanId, TalkerFailureCode code) {
    trace("MsrpSm::deregisterSrClassStreams( ", intf, ", ", srClassName(srClass), ", ", vlanId, ", ",
          number(code), " )");
    walkSoon({.intf = intf, .srClass = srClass, .vlanId = vlanId, .code = code});
}

void MsrpSm::walkSoon(ClassWalk walk) {
    if (!streams_.next(walk.vlanId, 0)) return;
    addClassWork(walk.intf, walk.srClass,
                 [this, walk](unsigned& units) mutable { return walkClass(walk, units); });
}

void MsrpSm::addClassWork(IntfId intf, SrClassId srClass, Runtime::Chores::Job job) {
    ++classWork_[{intf, srClass}];
    chores_.add(portLane(intf), [this, intf, srClass, job = std::move(job)](unsigned& units) {
        const bool done = job(units);
        const auto left = classWork_.find({intf, srClass});
        if (done && left != classWork_.end() && --left->second == 0) classWork_.erase(left);
        return done;
    });
}

bool MsrpSm::walkClass(ClassWalk& walk, unsigned& units) {
    return walkStreams(walk.vlanId, walk.next, units, [&](U64 id, StreamData& stream) {
        if (walk.code) {
            exitClass(walk, id, stream);
        } else {
            enterClass(walk, id, stream);
        }
    });
}

void MsrpSm::enterClass(const ClassWalk& walk, U64 id, StreamData& stream) {
    const IntfId intf = walk.intf;
    const IntfId ingress = stream.ingressIntf();
    if (!ingress || stream.srClass() != walk.srClass) return;
    // The port may have left again before the walk came here; what follows that is on its way.
    const SrClassState state = status()->intfStatus(intf)->srClassState(walk.srClass);
    if (!isActive(state)) return;
    if (intf == ingress) {
        // A talker's port that becomes a boundary has nothing to re-evaluate.
        if (state == SrClassState::Boundary) return;
        Runtime::require(state == SrClassState::Core, "srClassState == Core_");
        if (getTalkerState(stream, intf) == TalkerState::Advertise &&
            curedByPort(stream.talkerFailureCode(intf))) {
            processTalkerAdvertiseJoin(intf, streamDataTalkerAttribute(id));
        }
        return;
    }
    const TalkerState talker = getTalkerState(stream, ingress);
    const Code code = stream.talkerFailureCode(ingress);
    if (talker == TalkerState::Advertise && code == Code::noFailure) {
        propagateTalkerAdvertiseJoin(ingress, id, intf);
    } else {
        transmitTalkerFailed(intf, id, code, TalkerState::Failed);
    }
}

void MsrpSm::exitClass(const ClassWalk& walk, U64 id, StreamData& stream) {
    const IntfId intf = walk.intf;
    const Code code = *walk.code;
    if (stream.ingressIntf() && stream.srClass() != walk.srClass) return;
    const TalkerState talker = getTalkerState(stream, intf);
    const bool ingress = stream.ingressIntf() == intf;

    if (!ingress && code == Code::noFailure) {
        if (stream.listenerStateOrig(intf) != ListenerState::Ignore) {
            processListenerLeave(intf, MsrpListenerAttribute{id, stream.listenerStateOrig(intf)});
            inputs_.msrpLib->mrpCleanUpIntfDatabaseAttribute(intf, typeListener, id);
        }
        // Nobody may have asked for it any more; and without a talker nothing is declared.
        if (!streamList(id) || !stream.ingressIntf()) return;
        if (talker == TalkerState::Advertise) {
            transmitTalkerAdvertise(intf, id, TalkerState::None);
        } else if (talker == TalkerState::Failed) {
            transmitTalkerFailed(intf, id, stream.talkerFailureCode(intf), TalkerState::None);
        }
    } else if (!ingress) {
        failEgress(stream, intf, code);
        if (talker == TalkerState::Failed && stream.ingressIntf() &&
            betweenVlanFailures(stream.talkerFailureCode(intf), code)) {
            transmitTalkerFailed(intf, id, code, TalkerState::Failed);
        }
    } else if (code == Code::noFailure) {
        if (talker == TalkerState::Advertise) {
            processTalkerAdvertiseLeave(intf, streamDataTalkerAttribute(id));
            inputs_.msrpLib->mrpCleanUpIntfDatabaseAttribute(intf, typeTalkerAdvertise, id);
        } else if (talker == TalkerState::Failed) {
            const Code recorded = stream.talkerFailureCode(intf);
            processTalkerFailedLeave(intf, MsrpTalkerFailedAttribute{streamDataTalkerAttribute(id),
                                                                     stream.failedBridgeId(), recorded});
            inputs_.msrpLib->mrpCleanUpIntfDatabaseAttribute(intf, typeTalkerFailed, id);
        }
    } else if (talker == TalkerState::Advertise) {
        failIngress(stream, code);
    }
}

void MsrpSm::failEgress(StreamData& stream, IntfId intf, Code code) {
    const U64 id = stream.streamId();
    if (wantsStream(stream.listenerState(intf))) {
        removeListener(intf, id, ListenerState::AskingFailed);
        propagateListenerAttribute(id);
    }
    if (!stream.ingressIntf() || getTalkerState(stream, intf) != TalkerState::Advertise) return;
    counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertiseFailedHere);
    transmitTalkerFailed(intf, id, code, TalkerState::Failed);
}

void MsrpSm::failIngress(StreamData& stream, Code code) {
    const IntfId ingress = stream.ingressIntf();
    counterInc(ingress, Direction::Rx, MsrpCounter::talkerAdvertiseFailedHere);
    stream.talkerFailureCodeIs(ingress, code);
    propagateTalkerFailed(ingress, stream.streamId(), code, TalkerState::Failed);
}

}  // namespace Msrp
