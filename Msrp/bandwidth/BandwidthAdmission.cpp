/// Bandwidth on egress ports: who is admitted, who waits, who gets another try.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/types/Format.h"

namespace Msrp {

TalkerFailureCode MsrpSm::checkBandwidthAvailability(IntfId intf, const U64& streamId, SrClassId srClass,
                                                     const U64& bandwidthNeeded) {
    const auto intfStatus = status()->intfStatus(intf);
    const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    const AdmissionRequest request{
        .srClass = srClass,
        .needed = bandwidthNeeded,
        .link = phy ? linkSpeedKbps(phy->speedEnum()) : 0,
        .percentA = inputs_.cliConfig->srClassABandwidthPercent(),
        .percentB = inputs_.cliConfig->srClassBBandwidthPercent(),
        .allocatedA = intfStatus ? intfStatus->classBandwidthAllocated(SrClassId::SrClassA) : 0,
        .allocatedB = intfStatus ? intfStatus->classBandwidthAllocated(SrClassId::SrClassB) : 0,
    };
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
    for (auto at = bandwidthReleased_.begin(); at != bandwidthReleased_.end();) {
        const IntfId intf = at->first;
        reprocessBandwidthFailedStreams(intf);
        at = bandwidthReleased_.upper_bound(intf);
    }
}

void MsrpSm::reprocessBandwidthFailedStreams(IntfId intf) {
    const auto released = bandwidthReleased_.find(intf);
    if (released == bandwidthReleased_.end() || !released->second) return;
    bandwidthReleased_.erase(released);
    const std::shared_ptr<BwFailedIntf> failed = bandwidthFailedIntf(intf);
    if (!failed) return;
    // Oldest refusal first; what is refused anew meanwhile waits for the next release.
    const auto last = failed->tail();
    std::set<U64> tried;
    for (auto index = failed->head(); last && index && *index <= *last; index = failed->next(*index)) {
        const U64 streamId = failed->stream(*index);
        const auto stream = streamList(streamId);
        if (!stream || !stillWaitsForBandwidth(*stream, intf)) {
            failed->failedStreamDel(*index);
        } else if (tried.insert(streamId).second) {
            retryBandwidth(*stream, intf);
        }
    }
    if (failed->empty() && bandwidthFailedIntf(intf) == failed) bandwidthFailedIntfDel(intf);
}

bool MsrpSm::stillWaitsForBandwidth(const StreamData& stream, IntfId intf) const {
    const IntfId ingress = stream.ingressIntf();
    const ListenerState listener = stream.listenerState(intf);
    return ingress && ingress != intf && getTalkerState(stream, ingress) == TalkerState::Advertise &&
           stream.talkerFailureCode(ingress) == TalkerFailureCode::noFailure &&
           getTalkerState(stream, intf) == TalkerState::Failed &&
           (listener == ListenerState::AskingFailed || listener == ListenerState::ReadyFailed);
}

bool MsrpSm::portCanCarry(const StreamData& stream, IntfId intf) {
    const auto intfStatus = status()->intfStatus(intf);
    return intf != closingIntf_ && intfStatus &&
           intfStatus->srClassState(stream.srClass()) == SrClassState::Core &&
           checkVlanConfig(intf, stream.streamId(), stream.vlanId()) == TalkerFailureCode::noFailure;
}

void MsrpSm::retryBandwidth(StreamData& stream, IntfId intf) {
    const U64 streamId = stream.streamId();
    const ListenerState registered = stream.listenerStateOrig(intf);
    if (registered == ListenerState::Ignore || !portCanCarry(stream, intf)) return;
    const bool wants = wantsStream(registered);
    const TalkerFailureCode code =
        wants ? addListener(intf, streamId)
              : checkBandwidthAvailability(intf, streamId, stream.srClass(), stream.bandwidth());
    if (code != TalkerFailureCode::noFailure) return;
    counterInc(intf, Direction::Tx, MsrpCounter::talkerAdvertise);
    transmitTalkerAdvertise(intf, streamId, TalkerState::Advertise);
    if (!wants) return;
    stream.setListenerStateAndAge(intf, registered, now());
    propagateListenerAttribute(streamId);
}

}  // namespace Msrp
