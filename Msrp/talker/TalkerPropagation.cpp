/// A talker is declared on the other ports, as advertise or as failed, and withdrawn from them.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Msrp/types/Format.h"

#include <algorithm>

namespace Msrp {

namespace {

using Code = TalkerFailureCode;

MsrpTalkerAdvertiseAttribute talkerAttribute(const StreamData& stream) {
    MsrpTalkerAdvertiseAttribute attr;
    attr.streamIdIs(stream.streamId());
    attr.macDaIs(stream.macDa());
    attr.vlanIdIs(stream.vlanId());
    attr.maxFrameSizeIs(stream.maxFrameSize());
    attr.maxIntervalFramesIs(stream.maxIntervalFrames());
    attr.priorityAndRankIs(PriorityAndRank::create(stream.dataFramePriority(), stream.rank()));
    attr.accumulatedLatencyIs(stream.accumulatedLatency());
    return attr;
}

}  // namespace

TalkerState MsrpSm::getTalkerState(const StreamData& stream, IntfId intf) const {
    return pending_.removesTalker(stream.streamId(), intf) ? TalkerState::None : stream.talkerState(intf);
}

void MsrpSm::setTalkerState(StreamData& stream, IntfId intf, TalkerState state) {
    // The time tells since when the port has its state: a repetition leaves it alone.
    if (getTalkerState(stream, intf) != state) stream.setTalkerStateAndAge(intf, state, now());
    removeTalkerFromDeletePending(stream.streamId(), intf);
}

MsrpTalkerAdvertiseAttribute MsrpSm::streamDataTalkerAttribute(U64 streamId) const {
    const auto stream = streamList(streamId);
    Runtime::require(stream && stream->ingressIntf(), "streamData && streamData->ingressIntf()");
    return talkerAttribute(*stream);
}

// The declaration of the other type replaces this one on the wire (35.2.6): it is forgotten, not withdrawn.
void MsrpSm::sendTalkerInternalLeave(IntfId intf, U64 streamId, TalkerState state) {
    const MsrpTalkerAdvertiseAttribute attr = streamDataTalkerAttribute(streamId);
    if (state == TalkerState::Advertise) {
        send(intf, typeTalkerAdvertise, Mrp::requestInternalLeave, attr.octets());
        return;
    }
    const auto stream = existingStream(streamId);
    const MsrpTalkerFailedAttribute failed{attr, stream->failedBridgeId(), stream->talkerFailureCode(intf)};
    send(intf, typeTalkerFailed, Mrp::requestInternalLeave, failed.octets());
}

MsrpTalkerAdvertiseAttribute MsrpSm::declaredOn(IntfId intf, const StreamData& stream) const {
    Runtime::require(static_cast<bool>(stream.ingressIntf()), "streamData && streamData->ingressIntf()");
    MsrpTalkerAdvertiseAttribute attr = talkerAttribute(stream);
    const ClassLatency own = inputs_.cliConfig->latency().get(intf);
    const U64 sum =
        U64{attr.accumulatedLatency()} + (stream.srClass() == SrClassId::SrClassA ? own.a : own.b);
    attr.accumulatedLatencyIs(static_cast<U32>(std::min<U64>(sum, ~U32{0})));
    return attr;
}

void MsrpSm::declareAgain(IntfId intf, const StreamData& stream, U8 request) {
    const TalkerState state = getTalkerState(stream, intf);
    if (state == TalkerState::None || !stream.ingressIntf() || stream.ingressIntf() == intf) return;
    const MsrpTalkerAdvertiseAttribute attr = declaredOn(intf, stream);
    if (state == TalkerState::Advertise) return send(intf, typeTalkerAdvertise, request, attr.octets());
    const MsrpTalkerFailedAttribute failed{attr, stream.failedBridgeId(), stream.talkerFailureCode(intf)};
    send(intf, typeTalkerFailed, request, failed.octets());
}

// A port whose code stays the same is not told anything else.
void MsrpSm::failedBridgeChanged(const StreamData& stream, U64 before) {
    if (before == 0 || before == stream.failedBridgeId()) return;
    for (const IntfId port : portsWithStatus()) {
        if (getTalkerState(stream, port) == TalkerState::Failed) declareAgain(port, stream);
    }
}

// To the next bridge it is another value of the declaration: streams that are reserved there fail with
// code 7.
void MsrpSm::latencyChanged(const State::Change& change) {
    const auto* intf = change.key<IntfId>();
    if (intf == nullptr || !isCandidate(*intf)) return;
    chores_.add(portLane(*intf), [this, intf = *intf, next = U64{0}](unsigned& units) mutable {
        return walkStreams(0, next, units,
                           [&](U64, const StreamData& stream) { declareAgain(intf, stream); });
    });
}

void MsrpSm::failureCodeGone(StreamData& stream, IntfId intf, TalkerFailureCode old) {
    if (isBandwidthFailure(old)) removeFailedStreamFromIntf(stream.streamId(), intf);
    if (old == Code::destinationAddressInUse) removeMacDaBlockedStream(stream.macDa(), stream.streamId());
}

void MsrpSm::dropFailureCode(StreamData& stream, IntfId intf) {
    stream.talkerFailureCodeDel(intf);
    if (!stream.hasTalkerFailureCode()) stream.failedBridgeIdIs(0);
}

void MsrpSm::transmitTalkerAdvertise(IntfId intf, U64 streamId, TalkerState state) {
    transmitTalkerAdvertise(intf, *existingStream(streamId), state);
}

void MsrpSm::transmitTalkerAdvertise(IntfId intf, StreamData& stream, TalkerState state) {
    const U64 streamId = stream.streamId();
    const TalkerState current = getTalkerState(stream, intf);
    if (current == state) {
        trace("Not transmitting duplicate TalkerAdvertise");
        return;
    }
    const MsrpTalkerAdvertiseAttribute attr = declaredOn(intf, stream);
    const bool declare = state == TalkerState::Advertise;
    if (!declare) {
        addTalkerToDeletePending(streamId, intf);
        counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertiseLeave);
    } else {
        if (current == TalkerState::Failed) {
            sendTalkerInternalLeave(intf, streamId, TalkerState::Failed);
            log(MSRP_TALKER_ADV_JOIN, "transmitted", intf, HexId{streamId}, number(Code::noFailure));
        }
        setTalkerState(stream, intf, TalkerState::Advertise);
        counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertise);
    }
    const Code old = stream.talkerFailureCode(intf);
    dropFailureCode(stream, intf);
    failureCodeGone(stream, intf, old);
    send(intf, typeTalkerAdvertise, declare ? Mrp::requestDeclare : Mrp::requestWithdraw, attr.octets());
}

void MsrpSm::transmitTalkerFailed(IntfId intf, U64 streamId, TalkerFailureCode code, TalkerState state) {
    const auto stream = existingStream(streamId);
    const TalkerState current = getTalkerState(*stream, intf);
    const Code old = stream->talkerFailureCode(intf);
    if (current == state && old == code) {
        trace("Not transmitting duplicate TalkerFailed");
        return;
    }
    const MsrpTalkerAdvertiseAttribute attr = declaredOn(intf, *stream);
    if (stream->failedBridgeId() == 0) stream->failedBridgeIdIs(failureBridgeId(intf));
    const bool declare = state == TalkerState::Failed;
    if (!declare) {
        addTalkerToDeletePending(streamId, intf);
        dropFailureCode(*stream, intf);
        failureCodeGone(*stream, intf, old);
        counterInc(intf, Direction::Tx, MsrpCounter::talkerFailedLeave);
    } else {
        if (current == TalkerState::Advertise) {
            sendTalkerInternalLeave(intf, streamId, TalkerState::Advertise);
            log(MSRP_TALKER_FAIL_JOIN, "transmitted", intf, HexId{streamId}, number(code),
                HexId{stream->failedBridgeId()});
        }
        setTalkerState(*stream, intf, TalkerState::Failed);
        const bool stillWaits = old == code || (isBandwidthFailure(old) && isBandwidthFailure(code));
        if (!stillWaits) failureCodeGone(*stream, intf, old);
        stream->talkerFailureCodeIs(intf, code);
        counterInc(intf, Direction::Tx, MsrpCounter::talkerFailed);
    }
    const MsrpTalkerFailedAttribute failed{attr, stream->failedBridgeId(), code};
    send(intf, typeTalkerFailed, declare ? Mrp::requestDeclare : Mrp::requestWithdraw, failed.octets());
}

EgressFacts MsrpSm::egressFacts(IntfId port, const StreamData& stream) const {
    const IntfStatus* const intfStatus = status()->peekIntfStatus(port);
    return {.state = intfStatus != nullptr ? intfStatus->srClassState(stream.srClass())
                                           : SrClassState::NotSupported,
            .vlan = vlanFacts(port, stream.vlanId()),
            .shapingRefused = shapingRefused(stream, port)};
}

// What a listener would find behind this port: each port fails a stream for itself, and the others go on
// (35.2.4.3).
Code MsrpSm::judgeEgress(IntfId port, StreamData& stream, IntfId ingressIntf) {
    const U64 streamId = stream.streamId();
    const EgressFacts facts = egressFacts(port, stream);
    if (const Code code = Msrp::judgeEgress(facts); code != Code::noFailure) {
        if (code == Code::egressPortNotAvbCapable) {
            trace("ERROR: StreamId 0x", HexId{streamId}, ": Talker Failed on ", port, " since it is ",
                  srClassName(stream.srClass()), " Boundary port");
        } else {
            tellVlan(judgeVlan(facts.vlan), port, streamId, stream.vlanId());
        }
        return code;
    }
    const ListenerState listener = stream.listenerStateOrig(port);
    if (wantsStream(listener)) {
        const Code code = addListener(port, streamId);
        // The refused stream waits under the talker's port.
        if (isBandwidthFailure(code)) addFailedStreamToIntf(streamId, ingressIntf);
        return code;
    }
    if (listener == ListenerState::AskingFailed && getTalkerState(stream, port) == TalkerState::Failed) {
        return checkBandwidthAvailability(port, streamId, stream.srClass(), stream.bandwidth());
    }
    return Code::noFailure;
}

void MsrpSm::propagateTalkerAdvertiseJoin(IntfId ingressIntf, U64 streamId, IntfId onlyIntf) {
    const auto stream = existingStream(streamId);
    bool listenersChanged = false;
    const auto propagateTo = [&](IntfId port) {
        const IntfStatus* const intfStatus = status()->peekIntfStatus(port);
        Runtime::require(intfStatus != nullptr, "intfStatus");
        const SrClassState state = intfStatus->srClassState(stream->srClass());
        if (!isActive(state)) {
            trace("Not propagating TalkerAdvertiseJoin on ", port, " since ", srClassName(stream->srClass()),
                  " is ", srState(state));
            counterInc(port, Direction::Tx, MsrpCounter::talkerAdvertiseDiscarded);
            return;
        }
        const ListenerState listener = stream->listenerStateOrig(port);
        const Code code = judgeEgress(port, *stream, ingressIntf);
        if (code == Code::noFailure) {
            transmitTalkerAdvertise(port, *stream, TalkerState::Advertise);
        } else {
            if (stream->failedBridgeId() == 0) stream->failedBridgeIdIs(failureBridgeId(port));
            counterInc(port, Direction::Tx, MsrpCounter::talkerAdvertiseFailedHere);
            // What makes it fail may be under way on the port, and not have come to this stream.
            if (busy(port) && wantsStream(stream->listenerState(port)))
                removeListener(port, streamId, ListenerState::AskingFailed);
            transmitTalkerFailed(port, streamId, code, TalkerState::Failed);
        }
        if (listener != ListenerState::Ignore) {
            const auto effective = code == Code::noFailure ? listener : ListenerState::AskingFailed;
            listenerStateIs(*stream, port, effective);
            listenersChanged = true;
        }
    };
    if (onlyIntf) {
        propagateTo(onlyIntf);
    } else {
        for (const auto& [port, enabled] : config().intfEnable()) {
            if (port != ingressIntf && isCandidate(port)) propagateTo(port);
        }
    }
    if (listenersChanged) propagateListenerAttribute(streamId);
}

// 35.2.4.3.  `Failed` declares it, `None` withdraws it; listeners of a failed stream keep their registration
// and lose their bandwidth (35.2.4.4).
void MsrpSm::propagateTalkerFailed(IntfId ingressIntf, U64 streamId, TalkerFailureCode code,
                                   TalkerState state) {
    const auto stream = existingStream(streamId);
    const bool failed = state == TalkerState::Failed;
    bool listenersChanged = false;
    for (const IntfId port : portsWithStatus()) {
        if (port == ingressIntf || (failed && !isCandidate(port))) continue;
        const SrClassState classState = status()->peekIntfStatus(port)->srClassState(stream->srClass());
        // A port that is about to take the class's streams off may not have come to this one.
        const TalkerState declared = getTalkerState(*stream, port);
        const bool late = !failed && busy(port) && declared != TalkerState::None;
        if (!isActive(classState) && !late) {
            trace("Not propagating TalkerFailed on ", port, " since ", srClassName(stream->srClass()), " is ",
                  srState(classState));
            counterInc(port, Direction::Tx,
                       failed ? MsrpCounter::talkerFailedDiscarded : MsrpCounter::talkerFailedLeaveDiscarded);
            continue;
        }
        if (stream->listenerState(port) != ListenerState::Ignore) {
            removeListener(port, streamId, failed ? ListenerState::AskingFailed : ListenerState::Ignore);
            listenersChanged = true;
        }
        if (late && declared == TalkerState::Advertise) {
            transmitTalkerAdvertise(port, streamId, state);
        } else {
            transmitTalkerFailed(port, streamId, code, state);
        }
    }
    if (failed && listenersChanged) {
        transmitListenerAttribute(ingressIntf, streamId, ListenerState::AskingFailed);
    } else if (!failed && stream->listenerState(ingressIntf) != ListenerState::Ignore) {
        transmitListenerAttribute(ingressIntf, streamId, ListenerState::Ignore);
    }
}

void MsrpSm::propagateTalkerAdvertiseLeave(IntfId ingressIntf, U64 streamId) {
    const auto stream = existingStream(streamId);
    for (const IntfId port : portsWithStatus()) {
        if (port == ingressIntf) continue;
        if (stream->listenerState(port) != ListenerState::Ignore) {
            removeListener(port, streamId, ListenerState::Ignore);
        }
        switch (getTalkerState(*stream, port)) {
            case TalkerState::Advertise:
                transmitTalkerAdvertise(port, streamId, TalkerState::None);
                break;
            case TalkerState::Failed:
                transmitTalkerFailed(port, streamId, stream->talkerFailureCode(port), TalkerState::None);
                break;
            case TalkerState::None:
                trace("TalkerAdvertiseLeave not propagated on ", port);
                break;
        }
    }
}

}  // namespace Msrp
