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
    const SrClassState state = status()->intfStatus(intf)->srClassState(srClass);
    forEachStream([&](U64 id, StreamData& stream) {
        const IntfId ingress = stream.ingressIntf();
        if (!ingress || stream.srClass() != srClass || (vlanId != 0 && stream.vlanId() != vlanId)) return;
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
    });
}

void MsrpSm::deregisterSrClassStreams(IntfId intf, SrClassId srClass, U16 vlanId, TalkerFailureCode code) {
    trace("MsrpSm::deregisterSrClassStreams( ", intf, ", ", srClassName(srClass), ", ", vlanId, ", ",
          number(code), " )");
    forEachStream([&](U64 id, StreamData& stream) {
        if (vlanId != 0 && stream.vlanId() != vlanId) return;
        if (stream.ingressIntf() && stream.srClass() != srClass) return;
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
            if (wantsStream(stream.listenerState(intf))) {
                removeListener(intf, id, ListenerState::AskingFailed);
                propagateListenerAttribute(id);
            }
            if (!stream.ingressIntf()) return;
            if (talker == TalkerState::Advertise) {
                counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertiseFailedHere);
                transmitTalkerFailed(intf, id, code, TalkerState::Failed);
            } else if (talker == TalkerState::Failed &&
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
            counterInc(intf, Direction::Rx, MsrpCounter::talkerAdvertiseFailedHere);
            stream.talkerFailureCodeIs(intf, code);
            propagateTalkerFailed(intf, id, code, TalkerState::Failed);
        }
    });
}

}  // namespace Msrp
