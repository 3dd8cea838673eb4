/// A talker withdraws what it declared.
#include "Msrp/MsrpSm.h"
#include "Msrp/types/Format.h"

namespace Msrp {

// 35.2.4.3.  Only the declaration that counts can be withdrawn: a Leave of the other type, or on another
// port, is late news of something that was replaced long ago.
void MsrpSm::processTalkerAdvertiseLeave(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr) {
    const U64 streamId = attr.streamId();
    trace("processTalkerAdvertiseLeave( ", intf, " StreamId: 0x", HexId{streamId}, " )");
    ringTrace("talkerAdvertiseLeave", intf.number(), streamId);

    const HexId id{streamId};
    const auto drop = [&](const std::string& text) {
        discard(intf, MsrpCounter::talkerAdvertiseLeaveDiscarded, text);
    };
    const std::shared_ptr<StreamData> stream = streamList(streamId);
    if (!stream) {
        return drop(
            Runtime::format("Discard streamId 0x%s TalkerAdvLv on %s as stream doesn't exist", id, intf));
    }
    if (!stream->ingressIntf()) {
        return drop(Runtime::format(
            "Discard streamId 0x%s TalkerAdvLv on %s as TalkerAdv is not registered for stream", id, intf));
    }
    if (stream->ingressIntf() != intf) {
        return drop(Runtime::format(
            "Discard streamId 0x%s TalkerAdvLv on %s as TalkerAdv was received on different port", id, intf));
    }
    const TalkerState state = getTalkerState(*stream, intf);
    if (state != TalkerState::Advertise) {
        return drop(Runtime::format("Discard streamId 0x%s TalkerAdvLv on %s since prev state was %d", id,
                                    intf, number(state)));
    }
    log(MSRP_TALKER_ADV_LV, "received", intf, id);
    counterInc(intf, Direction::Rx, MsrpCounter::talkerAdvertiseLeave);
    addTalkerToDeletePending(streamId, intf);
    dropFailureCode(*stream, intf);
    propagateTalkerAdvertiseLeave(intf, streamId);
    if (stream->listenerState(intf) != ListenerState::Ignore) {
        transmitListenerAttribute(intf, streamId, ListenerState::Ignore);
    }
    const EthAddr held = stream->macDa();
    clearIngress(*stream);
    cleanupStreamDataIfEmpty(streamId);
    // What it held, bandwidth and address, may be what others wait for.
    reprocessBandwidthFailedStreams();
    reprocessMacDaFailedStreams(attr.macDa());
    // A talker that changed its address meanwhile has still held the one that it registered.
    if (held != attr.macDa()) reprocessMacDaFailedStreams(held);
}

// A failed stream held no bandwidth, so nobody can have waited for that.
void MsrpSm::processTalkerFailedLeave(IntfId intf, const MsrpTalkerFailedAttribute& attr) {
    const U64 streamId = attr.streamId();
    trace("processTalkerFailedLeave( ", intf, " StreamId: 0x", HexId{streamId}, " )");
    ringTrace("talkerFailedLeave", intf.number(), streamId);

    const HexId id{streamId};
    const auto drop = [&](const std::string& text) {
        discard(intf, MsrpCounter::talkerFailedLeaveDiscarded, text);
    };
    const std::shared_ptr<StreamData> stream = streamList(streamId);
    if (!stream) {
        return drop(
            Runtime::format("Discard streamId 0x%s TalkerFailLv on %s as stream doesn't exist", id, intf));
    }
    if (stream->ingressIntf() != intf) {
        return drop(Runtime::format(
            "Discard streamId 0x%s TalkerFailLv on %s as TalkerAdv was received on different port", id,
            intf));
    }
    const TalkerState state = getTalkerState(*stream, intf);
    if (state != TalkerState::Failed) {
        return drop(Runtime::format("Discard streamId 0x%s TalkerFailLv on %s since prev state was %d", id,
                                    intf, number(state)));
    }
    const TalkerFailureCode code = attr.failureCode();
    log(MSRP_TALKER_FAIL_LV, "received", intf, id, number(code));
    counterInc(intf, Direction::Rx, MsrpCounter::talkerFailedLeave);
    addTalkerToDeletePending(streamId, intf);
    dropFailureCode(*stream, intf);
    propagateTalkerFailed(intf, streamId, code, TalkerState::None);
    const EthAddr held = stream->macDa();
    clearIngress(*stream);
    cleanupStreamDataIfEmpty(streamId);
    reprocessMacDaFailedStreams(attr.macDa());
    if (held != attr.macDa()) reprocessMacDaFailedStreams(held);
}

void MsrpSm::clearIngress(StreamData& stream) {
    const IntfId ingress = stream.ingressIntf();
    stream.ingressIntfIs(IntfId{});
    // A listener of the talker's own port whose leave was discarded meanwhile would stay for ever.
    const bool recorded = stream.listenerStateOrig(ingress) != ListenerState::Ignore;
    if (recorded && !inputs_.msrpLib->mrpHeld(ingress, typeListener, stream.streamId())) {
        listenerStateOrigIs(stream, ingress, ListenerState::Ignore);
    }
    // Without a talker it waits for nothing.
    removeFromQueues(stream.streamId(), stream.macDa());
}

}  // namespace Msrp
