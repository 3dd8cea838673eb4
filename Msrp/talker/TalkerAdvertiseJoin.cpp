/// A Talker Advertise is registered: judge it, record the stream, pass it on.
#include "Msrp/MsrpSm.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Msrp/talker/TalkerValidation.h"
#include "Msrp/types/Format.h"

namespace Msrp {

namespace {

using Code = TalkerFailureCode;

bool firstValueDiffers(const StreamData& stream, const MsrpTalkerAdvertiseAttribute& attr) {
    return stream.macDa() != attr.macDa() || stream.vlanId() != attr.vlanId() ||
           stream.dataFramePriority() != attr.dataFramePriority() ||
           stream.maxFrameSize() != attr.maxFrameSize() ||
           stream.maxIntervalFrames() != recordedFrames(attr.maxIntervalFrames()) ||
           stream.rank() != attr.rank();
}

}  // namespace

template <class Attribute>
TalkerFacts MsrpSm::talkerFacts(IntfId intf, const Attribute& attr) const {
    const auto stream = streamList(attr.streamId());
    const auto intfStatus = status()->intfStatus(intf);
    const auto stateOf = [&](SrClassId srClass) {
        return intfStatus ? intfStatus->srClassState(srClass) : SrClassState::NotSupported;
    };
    return {.intf = intf,
            .streamId = attr.streamId(),
            .vlanId = attr.vlanId(),
            .macDa = attr.macDa(),
            .priority = attr.dataFramePriority(),
            .knownIngress = stream ? stream->ingressIntf() : IntfId{},
            .priorityA = srClassPriority(SrClassId::SrClassA),
            .priorityB = srClassPriority(SrClassId::SrClassB),
            .stateA = stateOf(SrClassId::SrClassA),
            .stateB = stateOf(SrClassId::SrClassB)};
}
template TalkerFacts MsrpSm::talkerFacts(IntfId, const MsrpTalkerAdvertiseAttribute&) const;
template TalkerFacts MsrpSm::talkerFacts(IntfId, const MsrpTalkerFailedAttribute&) const;

// 35.2.4.3.  Who declares a stream first has it, on one port; what the same port says later is judged against
// the first value, since listeners have reserved for that (35.2.2.8.7, codes 7 and 16).
bool MsrpSm::processTalkerAdvertiseJoin(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr) {
    const U64 streamId = attr.streamId();
    trace("processTalkerAdvertiseJoin( ", intf, " vlan ", attr.vlanId(), " StreamId: 0x", HexId{streamId},
          " )");
    ringTrace("talkerAdvertiseJoin", intf.number(), streamId, attr.vlanId());

    const TalkerVerdict verdict = checkTalkerAdvertise(talkerFacts(intf, attr));
    if (!verdict.discard.empty())
        return discard(intf, MsrpCounter::talkerAdvertiseDiscarded, verdict.discard);

    std::shared_ptr<StreamData> stream = streamList(streamId);
    const bool known = stream && stream->ingressIntf();
    const VlanId vlan{attr.vlanId()};
    if (!inputs_.brMsrpConfig->fdbConfig(vlan)) {
        trace("FdbConfig created for vlanId ", vlan);
        inputs_.brMsrpConfig->fdbConfigIs(vlan);
    }
    const Code code = judgeAdvertise(intf, attr, known ? stream.get() : nullptr, verdict.srClass);

    bool repeat = false;
    if (known) {
        // The first value stays as first registered, whatever the code.
        repeat = getTalkerState(*stream, intf) == TalkerState::Advertise &&
                 stream->talkerFailureCode(intf) == code;
    } else {
        trace("Talker Advertise is Registering a new stream");
        if (!stream) stream = newTalkerStream(streamId, intf);
        registerTalker(*stream, intf, attr, verdict.srClass, recordedFrames(attr.maxIntervalFrames()));
    }
    // Also of a stream that fails here: its frames must not be flooded while it waits.
    claimGroup(*stream, intf);

    if (getTalkerState(*stream, intf) == TalkerState::Failed) {
        // The other type of the key has ended without a Leave (35.2.6).
        sendTalkerInternalLeave(intf, streamId, TalkerState::Failed);
    }
    setTalkerState(*stream, intf, TalkerState::Advertise);
    if (!repeat) {
        log(MSRP_TALKER_ADV_JOIN, "received", intf, HexId{streamId}, number(code));
        counterInc(intf, Direction::Rx, MsrpCounter::talkerAdvertise);
    }
    const U64 before = stream->failedBridgeId();
    if (code == Code::noFailure) {
        stream->talkerFailureCodeDel(intf);
        stream->failedBridgeIdIs(0);
        propagateTalkerAdvertiseJoin(intf, streamId, IntfId{});
    } else {
        counterInc(intf, Direction::Rx, MsrpCounter::talkerAdvertiseFailedHere);
        stream->talkerFailureCodeIs(intf, code);
        stream->failedBridgeIdIs(failureBridgeId(intf));
        propagateTalkerFailed(intf, streamId, code, TalkerState::Failed);
    }
    failedBridgeChanged(*stream, before);
    return false;
}

// What another stream has taken comes last.
Code MsrpSm::judgeAdvertise(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr, const StreamData* known,
                            SrClassId srClass) {
    const IngressFacts facts{
        .state = status()->intfStatus(intf)->srClassState(srClass),
        .vlan = vlanFacts(intf, attr.vlanId()),
        .maxFrameSize = attr.maxFrameSize(),
        .maxFrameSizeLimit = inputs_.cliConfig->maxFrameSizeLimit(),
        .latencyChanged = known != nullptr && known->accumulatedLatency() != attr.accumulatedLatency(),
        .firstValueChanged = known != nullptr && firstValueDiffers(*known, attr)};
    const Code own = judgeIngress(facts);
    tellVlan(judgeVlan(facts.vlan), intf, attr.streamId(), attr.vlanId());
    if (own == Code::egressPortNotAvbCapable)
        trace(": TalkerAdvertiseJoin received on ", srClassName(srClass), " Boundary port");
    if (own == Code::maxFrameSizeTooLarge) trace(": Talker Advertise's maxFrameSize is too large");
    if (own == Code::latencyChanged) trace(": Talker Advertise's reported latency has changed");
    if (own == Code::firstValueChanged) trace(": Talker Advertise's FirstValue has changed");
    if (own != Code::noFailure) return own;
    if (known == nullptr || !known->ethGroup()) {
        const Code code = checkMacDaInUse(intf, attr);
        if (code != Code::noFailure) return code;
    }
    const Switch::GroupId group{VlanId{attr.vlanId()}, attr.macDa()};
    if (!groupRefused(group)) return Code::noFailure;
    if (known == nullptr || known->talkerFailureCode(intf) != Code::cannotStoreAddress)
        tellGroupRefused(attr.streamId(), intf, group);
    return Code::cannotStoreAddress;
}

Code MsrpSm::checkMacDaInUse(IntfId intf, const MsrpTalkerAdvertiseAttribute& attr) {
    const EthAddr macDa = attr.macDa();
    const auto fdb = inputs_.brMsrpConfig->fdbConfig(VlanId{attr.vlanId()});
    if (!fdb || !fdb->ethGroup(macDa)) return Code::noFailure;
    const HexId id{attr.streamId()};
    log(MSRP_ERROR,
        Runtime::format("StreamId 0x%s TalkerAdvJoin on %s with Mac DA %s already in use on Vlan %d", id,
                        intf, macDa, attr.vlanId()));
    trace(": Talker Advertise's Mac DA ", macDa, " is already in use on Vlan ", attr.vlanId());
    if (const auto other = streams_.otherWith(macDa, attr.streamId())) {
        log(MSRP_ERROR,
            Runtime::format(
                "StreamId 0x%s TalkerAdvJoin on %s with Mac DA %s already in use by streamId 0x%s", id, intf,
                macDa, HexId{*other}));
    }
    // It is tried again when the address is free.
    addMacDaBlockedStream(macDa, attr.streamId());
    return Code::destinationAddressInUse;
}

std::shared_ptr<StreamData> MsrpSm::newTalkerStream(U64 streamId, IntfId intf) {
    const auto pending = pending_.remove.find(streamId);
    const bool revived = pending != pending_.remove.end() && pending->second;
    auto stream = addStreamToAddPending(streamId);
    if (revived) stream->statusTimeIs(intf, now());
    return stream;
}

template <class Attribute>
void MsrpSm::registerTalker(StreamData& stream, IntfId intf, const Attribute& attr, SrClassId srClass,
                            U32 chargedFrames) {
    stream.ingressIntfIs(intf);
    streams_.destinationIs(stream, attr.macDa(), attr.vlanId());
    stream.maxFrameSizeIs(attr.maxFrameSize());
    stream.maxIntervalFramesIs(recordedFrames(attr.maxIntervalFrames()));
    stream.dataFramePriorityIs(attr.dataFramePriority());
    stream.rankIs(attr.rank());
    stream.accumulatedLatencyIs(attr.accumulatedLatency());
    stream.srClassIs(srClass);
    stream.bandwidthIs(streamBandwidth(srClass, chargedFrames, attr.maxFrameSize()));
}
template void MsrpSm::registerTalker(StreamData&, IntfId, const MsrpTalkerAdvertiseAttribute&, SrClassId,
                                     U32);
template void MsrpSm::registerTalker(StreamData&, IntfId, const MsrpTalkerFailedAttribute&, SrClassId, U32);

void MsrpSm::claimGroup(StreamData& stream, IntfId intf) {
    const auto fdb = inputs_.brMsrpConfig->fdbConfig(VlanId{stream.vlanId()});
    if (stream.ethGroup() || !fdb || fdb->ethGroup(stream.macDa())) return;
    const auto group = fdb->ethGroupIs(stream.macDa());
    stream.ethGroupIs(group);
    group->talkerIntfIs(intf);
    group->intfIs(intf, true);
}

}  // namespace Msrp
