/// A Talker Failed is registered: record the stream, pass the failure on unchanged.
#include "Msrp/MsrpSm.h"
#include "Msrp/talker/TalkerValidation.h"
#include "Msrp/types/Format.h"

namespace Msrp {

// 35.2.4.3.  The first bridge that fails a stream names itself and its reason; all behind it pass both on
// unchanged, that listeners learn what is to be mended, and where.
bool MsrpSm::processTalkerFailedJoin(IntfId intf, const MsrpTalkerFailedAttribute& attr) {
    const U64 streamId = attr.streamId();
    const TalkerFailureCode code = attr.failureCode();
    trace("processTalkerFailedJoin( ", intf, " StreamId: 0x", HexId{streamId}, " code ", number(code), " )");
    ringTrace("talkerFailedJoin", intf.number(), streamId, number(code));

    const VlanId vlan{attr.vlanId()};  // a range error goes to the engine
    const TalkerVerdict verdict = checkTalkerFailed(talkerFacts(intf, attr));
    if (!verdict.discard.empty()) return discard(intf, MsrpCounter::talkerFailedDiscarded, verdict.discard);

    std::shared_ptr<StreamData> stream = streamList(streamId);
    const bool repeat =
        stream && stream->ingressIntf() == intf && getTalkerState(*stream, intf) == TalkerState::Failed &&
        stream->failedBridgeId() == attr.failedBridgeId() && stream->talkerFailureCode(intf) == code;

    if (!stream || !stream->ingressIntf()) {
        if (!stream) stream = newTalkerStream(streamId, intf);
        // The record keeps one octet of the frames per interval; the bandwidth is charged for all of them.
        registerTalker(*stream, intf, attr, verdict.srClass, attr.maxIntervalFrames());
    } else if (stream->ingressIntf() != intf) {
        return discard(
            intf, MsrpCounter::talkerFailedDiscarded,
            Runtime::format("Discard streamId 0x%s TalkerFailedJoin on %s as ingress port %s is different",
                            HexId{streamId}, intf, stream->ingressIntf()));
    }
    inputs_.brMsrpConfig->fdbConfigIs(vlan);
    claimGroup(*stream, intf);
    if (getTalkerState(*stream, intf) == TalkerState::Advertise) {
        sendTalkerInternalLeave(intf, streamId, TalkerState::Advertise);
    }
    if (!repeat) {
        log(MSRP_TALKER_FAIL_JOIN, "received", intf, HexId{streamId}, number(code),
            HexId{attr.failedBridgeId()});
        counterInc(intf, Direction::Rx, MsrpCounter::talkerFailed);
    }
    setTalkerState(*stream, intf, TalkerState::Failed);
    const U64 before = stream->failedBridgeId();
    stream->failedBridgeIdIs(attr.failedBridgeId());
    stream->talkerFailureCodeIs(intf, code);
    propagateTalkerFailed(intf, streamId, code, TalkerState::Failed);
    failedBridgeChanged(*stream, before);
    // A failed stream gives back what its listeners held.
    reprocessBandwidthFailedStreams();
    return false;
}

}  // namespace Msrp
