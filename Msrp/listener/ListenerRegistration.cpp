/// Listeners come and go: who gets a stream on which port, and at what price.
#include "Msrp/MsrpSm.h"
#include "Msrp/listener/ListenerValidation.h"
#include "Msrp/types/Format.h"

namespace Msrp {

void MsrpSm::listenerStateIs(StreamData& stream, IntfId intf, ListenerState state) {
    const ListenerState old = stream.listenerState(intf);
    if (old != state) {
        trace("StreamId 0x", HexId{stream.streamId()}, " listener on ", intf, ": ", stateName(old), " to ",
              stateName(state));
    }
    if (state == ListenerState::Ignore) {
        stream.delListenerStateAndAge(intf);
    } else {
        stream.setListenerStateAndAge(intf, state, now());
    }
}

void MsrpSm::listenerStateOrigIs(StreamData& stream, IntfId intf, ListenerState state) {
    const ListenerState old = stream.listenerStateOrig(intf);
    if (old != state) {
        trace("StreamId 0x", HexId{stream.streamId()}, " listener registered on ", intf, ": ", stateName(old),
              " to ", stateName(state));
    }
    if (state == ListenerState::Ignore) {
        stream.listenerStateOrigDel(intf);
    } else {
        stream.listenerStateOrigIs(intf, state);
    }
}

ListenerFacts MsrpSm::listenerFacts(IntfId intf, const MsrpListenerAttribute& attr,
                                    const StreamData* stream) const {
    const auto intfStatus = status()->intfStatus(intf);
    ListenerFacts facts{.intf = intf,
                        .streamId = attr.streamId(),
                        .declared = attr.listenerState(),
                        .portActive = isActive(intfStatus->srClassState(SrClassId::SrClassA)) ||
                                      isActive(intfStatus->srClassState(SrClassId::SrClassB)),
                        .known = stream != nullptr,
                        .ingress = {}};
    if (stream == nullptr) return facts;
    facts.ingress = stream->ingressIntf();
    facts.srClass = stream->srClass();
    facts.classState = intfStatus->srClassState(stream->srClass());
    return facts;
}

// 35.2.4.4.  What was registered is kept beside what it came to: when the talker, the port's domain or the
// bandwidth change, the listener need not ask again.
bool MsrpSm::processListenerJoin(IntfId intf, const MsrpListenerAttribute& attr) {
    const U64 streamId = attr.streamId();
    const ListenerState state = attr.listenerState();
    const HexId id{streamId};
    trace("processListenerJoin( ", intf, " StreamId: 0x", id, " state ", number(state), " )");
    ringTrace("listenerJoin", intf.number(), streamId, number(state));
    std::shared_ptr<StreamData> stream = streamList(streamId);
    const ListenerVerdict verdict = judgeListenerJoin(listenerFacts(intf, attr, stream.get()));
    const bool changed = !stream || stream->listenerStateOrig(intf) != state;
    switch (verdict.kind) {
        using Kind = ListenerVerdict::Kind;
        case Kind::nothing:
            trace("Ignoring ListenerIgnore event");
            return false;
        case Kind::inactive:
            return discard(intf, listenerDiscardCounter(state), verdict.discard);
        case Kind::refused:
            if (changed) return discard(intf, listenerDiscardCounter(state), verdict.discard);
            discard(verdict.discard);
            return true;
        case Kind::unknown:
            // It asks before its talker has spoken; the talker will find it.
            stream = addStreamToAddPending(streamId);
            listenerStateOrigIs(*stream, intf, state);
            counterInc(intf, Direction::Rx, listenerCounter(state));
            return false;
        case Kind::early:
        case Kind::asks:
            break;
    }
    listenerStateOrigIs(*stream, intf, state);
    if (changed) {
        log(MSRP_LISTENER_JOIN, "received", intf, id, number(state));
        counterInc(intf, Direction::Rx, listenerCounter(state));
    }
    if (verdict.kind == ListenerVerdict::Kind::early) return false;

    ListenerState effective = verdict.effective;
    if (effective != state) {
        trace(": Treating ", stateName(state), " as ListenerAskingFailed since ", intf,
              " is boundary port for ", srClassName(stream->srClass()));
    }
    if (effective == stream->listenerState(intf)) {
        trace("ListenerJoin did not result in any change");
        return false;
    }
    if (effective == ListenerState::AskingFailed) {
        removeListener(intf, streamId, ListenerState::AskingFailed);
    } else {
        switch (getTalkerState(*stream, intf)) {
            case TalkerState::Advertise: {
                const TalkerFailureCode failure = addListener(intf, streamId);
                if (failure != TalkerFailureCode::noFailure) {
                    // The listener's own side hears why, as well as the talker that somebody got nothing.
                    effective = ListenerState::AskingFailed;
                    transmitTalkerFailed(intf, streamId, failure, TalkerState::Failed);
                    counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertiseFailedHere);
                    if (isBandwidthFailure(failure)) addFailedStreamToIntf(streamId, intf);
                }
                listenerStateIs(*stream, intf, effective);
                break;
            }
            case TalkerState::Failed:
                trace(": Treating ", stateName(state),
                      " as ListenerAskingFailed since Talker is in Failed state on ", intf);
                listenerStateIs(*stream, intf, ListenerState::AskingFailed);
                break;
            case TalkerState::None:
                trace("Listener not honored since Talker state is not active");
                break;
        }
    }
    propagateListenerAttribute(streamId);
    // An AskingFailed gives back what a Ready held.
    reprocessBandwidthFailedStreams(intf);
    return false;
}

// 35.2.4.4.
void MsrpSm::processListenerLeave(IntfId intf, const MsrpListenerAttribute& attr) {
    const U64 streamId = attr.streamId();
    const HexId id{streamId};
    trace("processListenerLeave( ", intf, " StreamId: 0x", id, " )");
    ringTrace("listenerLeave", intf.number(), streamId);

    const auto drop = [&](const std::string& text) {
        discard(intf, MsrpCounter::listenerLeaveDiscarded, text);
    };
    const std::shared_ptr<StreamData> stream = streamList(streamId);
    if (!stream) {
        return drop(
            Runtime::format("Discard streamId 0x%s ListenerLv on %s as stream doesn't exist", id, intf));
    }
    if (!stream->ingressIntf()) {
        listenerStateIs(*stream, intf, ListenerState::Ignore);
        listenerStateOrigIs(*stream, intf, ListenerState::Ignore);
        counterInc(intf, Direction::Rx, MsrpCounter::listenerLeave);
    } else if (stream->ingressIntf() == intf) {
        return drop(Runtime::format(
            "Discard streamId 0x%s ListenerLv received on same interface %s as Talker", id, intf));
    } else {
        const ListenerState state = stream->listenerStateOrig(intf);
        if (state == ListenerState::Ignore) {
            return drop(Runtime::format(
                "Discard streamId 0x%s ListenerLv on %s as Listener is not registered", id, intf));
        }
        log(MSRP_LISTENER_LV, "received", intf, id, number(state));
        counterInc(intf, Direction::Rx, MsrpCounter::listenerLeave);
        removeListener(intf, streamId, ListenerState::Ignore);
        listenerStateOrigIs(*stream, intf, ListenerState::Ignore);
        propagateListenerAttribute(streamId);
    }
    cleanupStreamDataIfEmpty(streamId);
    reprocessBandwidthFailedStreams(intf);
}

// The reservation itself (34.3, 35.2.4.2): bandwidth is taken before frames may flow, and the port joins the
// group only with it.
TalkerFailureCode MsrpSm::addListener(IntfId intf, const U64& streamId) {
    const auto stream = existingStream(streamId);
    const auto group = stream->ethGroup();
    if (!group || group->intf(intf)) return TalkerFailureCode::noFailure;

    const SrClassId srClass = stream->srClass();
    const U64 bandwidth = stream->bandwidth();
    const HexId id{streamId};
    // Its streams are about to fail there, a piece at a time.
    if (shapingRefused(*stream, intf)) return TalkerFailureCode::insufficientResources;
    const TalkerFailureCode failure = checkBandwidthAvailability(intf, streamId, srClass, bandwidth);
    if (failure != TalkerFailureCode::noFailure) {
        trace(": Not Adding ", intf, " as listener since ", bandwidth,
              "kbps bandwidth is not available on this port");
        log(MSRP_BW_ALLOC_FAIL, bandwidth, intf, id);
        return failure;
    }
    trace(": Adding ", intf, " as listener with ", bandwidth, "kbps bandwidth");
    log(MSRP_BW_ALLOC_SUCCESS, bandwidth, intf, id);
    spend(1);
    const auto intfStatus = status()->intfStatus(intf);
    intfStatus->classBandwidthAllocatedIs(srClass, intfStatus->classBandwidthAllocated(srClass) + bandwidth);
    frameReserved(intf, srClass, stream->maxFrameSize(), true);
    group->intfIs(intf, true);
    // The talker's port only held the place while nobody listened.
    if (group->intf(stream->ingressIntf())) group->intfDel(stream->ingressIntf());
    doSetQosTxQueueConfig(intf);
    return TalkerFailureCode::noFailure;
}

// In the other order: no frame passes any more when the bandwidth is given back.
void MsrpSm::removeListener(IntfId intf, const U64& streamId, ListenerState newState) {
    const auto stream = existingStream(streamId);
    listenerStateIs(*stream, intf, newState);
    const auto group = stream->ethGroup();
    if (!group || !group->intf(intf)) return;

    const SrClassId srClass = stream->srClass();
    const U64 bandwidth = stream->bandwidth();
    trace(": Removing ", intf);
    log(MSRP_BW_DEALLOC, bandwidth, intf, HexId{streamId});
    spend(1);
    group->intfDel(intf);
    // An address without a group would be flooded: the talker's own port holds the place.
    if (group->intf().empty()) group->intfIs(stream->ingressIntf(), true);
    const auto intfStatus = status()->intfStatus(intf);
    intfStatus->classBandwidthAllocatedIs(srClass, intfStatus->classBandwidthAllocated(srClass) - bandwidth);
    frameReserved(intf, srClass, stream->maxFrameSize(), false);
    bandwidthReleasedIs(intf, true);
    doSetQosTxQueueConfig(intf);
}

}  // namespace Msrp
