/// Bandwidth on egress ports: who is admitted, who waits, who gets another try.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Msrp/types/Format.h"

namespace Msrp {

AdmissionRequest MsrpSm::admissionRequest(IntfId intf, SrClassId srClass, U64 needed) const {
    const auto intfStatus = status()->intfStatus(intf);
    const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    return {
        .srClass = srClass,
        .needed = needed,
        .link = phy ? linkSpeedKbps(phy->speedEnum()) : 0,
        .percentA = inputs_.cliConfig->srClassABandwidthPercent(),
        .percentB = inputs_.cliConfig->srClassBBandwidthPercent(),
        .allocatedA = intfStatus ? intfStatus->classBandwidthAllocated(SrClassId::SrClassA) : 0,
        .allocatedB = intfStatus ? intfStatus->classBandwidthAllocated(SrClassId::SrClassB) : 0,
    };
}

TalkerFailureCode MsrpSm::checkBandwidthAvailability(IntfId intf, const U64& streamId, SrClassId srClass,
                                                     const U64& bandwidthNeeded) {
    const AdmissionRequest request = admissionRequest(intf, srClass, bandwidthNeeded);
    trace("Bw Needed ", bandwidthNeeded, " allowed ", allowedTotal(request), " allocated ",
          request.allocatedA + request.allocatedB);
    const TalkerFailureCode code = admit(request);
    if (code == TalkerFailureCode::noFailure) return code;

    const HexId id{streamId};
    const char* share = code == TalkerFailureCode::insufficientBandwidth ? ""
                        : srClass == SrClassId::SrClassA                 ? "SR Class A "
                                                                         : "SR Class B ";
    const char* forClass = code == TalkerFailureCode::insufficientBandwidth ? ""
                           : srClass == SrClassId::SrClassA                 ? " for SR Class A"
                                                                            : " for SR Class B";
    trace("ERROR: StreamId 0x", id, ": reservation failed on ", intf, " due to insufficient bandwidth",
          forClass);
    log(MSRP_ERROR,
        Runtime::format(
            "StreamId 0x%s failed on %s because of insufficient %sbandwidth. Bandwidth needed is %llu kbps",
            id, intf, share, bandwidthNeeded));
    return code;
}

void MsrpSm::addFailedStreamToIntf(const U64& streamId, IntfId intf) {
    bandwidthFailedIntfIs(intf)->failedStreamEnq(streamId, now());
}

void MsrpSm::removeFailedStreamFromIntf(const U64& streamId, IntfId intf) {
    const auto failed = bandwidthFailedIntf(intf);
    if (!failed) return;
    failed->failedStreamDelEvery(streamId);
    if (failed->empty()) bandwidthFailedIntfDel(intf);
}

void MsrpSm::reprocessBandwidthFailedStreams() {
    for (const auto& [intf, released] : bandwidthReleased_) reprocessBandwidthFailedStreams(intf);
}

void MsrpSm::reprocessBandwidthFailedStreams(IntfId intf) {
    const auto released = bandwidthReleased_.find(intf);
    if (released == bandwidthReleased_.end() || !released->second) return;
    // A peer that waits with thousands of streams must not cost a walk over them for each one that goes: all
    // that this callback releases is given out together, at its end.
    if (retryDue_.insert(intf).second) retrySoon();
}

void MsrpSm::retrySoon() {
    if (std::exchange(retriesPosted_, true)) return;
    platform_.loop.post([this, alive = std::weak_ptr<bool>{alive_}] {
        if (!alive.expired()) beginRetries();
    });
}

void MsrpSm::beginRetries() {
    retriesPosted_ = false;
    for (const IntfId intf : std::exchange(retryDue_, {})) {
        if (chores_.busy(retryLane(intf))) {
            // It is still giving out what was released before, and has passed some by: once more after that.
            retryDue_.insert(intf);
            continue;
        }
        bandwidthReleased_.erase(intf);
        const auto failed = bandwidthFailedIntf(intf);
        // What is refused anew meanwhile waits for the next release.
        const auto first = failed ? failed->head() : std::nullopt;
        if (!first) continue;
        chores_.add(retryLane(intf),
                    [this, intf, next = *first, last = *failed->tail()](unsigned& units) mutable {
                        return retryPort(intf, next, last, units);
                    });
    }
    for (const EthAddr macDa : std::exchange(addressDue_, {})) {
        const auto blocked = macDaBlocked(macDa);
        const auto first = blocked ? blocked->head() : std::nullopt;
        if (blocked && !first) macDaBlockedDel(macDa);
        if (!first || chores_.busy(addressLane(macDa))) {
            if (first) addressDue_.insert(macDa);
            continue;
        }
        chores_.add(addressLane(macDa),
                    [this, macDa, next = *first, last = *blocked->tail()](unsigned& units) mutable {
                        return retryAddress(macDa, next, last, units);
                    });
    }
}

bool MsrpSm::retryPort(IntfId intf, U32& next, U32 last, unsigned& units) {
    const std::shared_ptr<BwFailedIntf> failed = bandwidthFailedIntf(intf);
    if (!failed) return true;
    // Oldest refusal first.
    for (auto index = failed->from(next); index && *index <= last; index = failed->after(*index)) {
        next = *index;
        if (units == 0) return false;
        const unsigned before = spent_;
        const U64 streamId = failed->stream(*index);
        const auto stream = streamList(streamId);
        if (!stream || !stillWaitsForBandwidth(*stream, intf)) {
            failed->failedStreamDel(*index);
        } else {
            retryBandwidth(*stream, intf);
        }
        units -= std::min(units, 1 + (spent_ - before));
    }
    if (failed->empty() && bandwidthFailedIntf(intf) == failed) bandwidthFailedIntfDel(intf);
    return true;
}

bool MsrpSm::stillWaitsForBandwidth(const StreamData& stream, IntfId intf) const {
    const IntfId ingress = stream.ingressIntf();
    const ListenerState listener = stream.listenerState(intf);
    return ingress && ingress != intf && getTalkerState(stream, ingress) == TalkerState::Advertise &&
           stream.talkerFailureCode(ingress) == TalkerFailureCode::noFailure &&
           getTalkerState(stream, intf) == TalkerState::Failed &&
           (listener == ListenerState::AskingFailed || listener == ListenerState::ReadyFailed);
}

bool MsrpSm::portCanCarry(const StreamData& stream, IntfId intf) const {
    const EgressFacts facts = egressFacts(intf, stream);
    return isActive(facts.state) && Msrp::judgeEgress(facts) == TalkerFailureCode::noFailure;
}

void MsrpSm::retryBandwidth(StreamData& stream, IntfId intf) {
    const U64 streamId = stream.streamId();
    const ListenerState registered = stream.listenerStateOrig(intf);
    if (registered == ListenerState::Ignore || !portCanCarry(stream, intf)) return;
    // Who needs more than there is keeps the place, without the words and the count of a new attempt.
    if (admit(admissionRequest(intf, stream.srClass(), stream.bandwidth())) != TalkerFailureCode::noFailure)
        return;
    const bool wants = wantsStream(registered);
    const TalkerFailureCode code =
        wants ? addListener(intf, streamId)
              : checkBandwidthAvailability(intf, streamId, stream.srClass(), stream.bandwidth());
    if (code != TalkerFailureCode::noFailure) return;
    counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertise);
    transmitTalkerAdvertise(intf, streamId, TalkerState::Advertise);
    if (!wants) return;
    listenerStateIs(stream, intf, registered);
    propagateListenerAttribute(streamId);
}

}  // namespace Msrp
