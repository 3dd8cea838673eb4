/// Streams that wait for their destination address, oldest first.
#include "Msrp/MsrpSm.h"

namespace Msrp {

void MsrpSm::addMacDaBlockedStream(EthAddr macDa, U64 streamId) {
    macDaBlockedIs(macDa)->failedStreamEnq(streamId, now());
}

void MsrpSm::removeMacDaBlockedStream(EthAddr macDa, U64 streamId) {
    if (const auto blocked = macDaBlocked(macDa)) blocked->failedStreamDelFirst(streamId);
}

bool MsrpSm::addressFree(const StreamData& stream) const {
    const auto intfStatus = inputs_.status->intfStatus(stream.ingressIntf());
    const auto fdb = inputs_.brMsrpConfig->fdbConfig(VlanId{stream.vlanId()});
    return intfStatus && isActive(intfStatus->srClassState(stream.srClass())) &&
           !(fdb && fdb->ethGroup(stream.macDa()));
}

void MsrpSm::reprocessMacDaFailedStreams(EthAddr macDa) {
    if (macDaBlocked(macDa) && addressDue_.insert(macDa).second) retrySoon();
}

bool MsrpSm::retryAddress(EthAddr macDa, U32& next, U32 last, unsigned& units) {
    const std::shared_ptr<MacDaBlocked> blocked = macDaBlocked(macDa);
    if (!blocked) return true;
    // Once one of them has taken the address the others only keep their places: a peer that waits with
    // thousands of streams must not cost a full attempt for each of them at each leave.  What queues up anew
    // meanwhile is not visited.
    for (auto index = blocked->from(next); index && *index <= last; index = blocked->after(*index)) {
        next = *index;
        if (units == 0) return false;
        const unsigned before = spent_;
        const U64 streamId = blocked->stream(*index);
        const auto stream = streamList(streamId);
        const IntfId ingress = stream ? stream->ingressIntf() : IntfId{};
        const bool waits = ingress && getTalkerState(*stream, ingress) == TalkerState::Advertise &&
                           stream->talkerFailureCode(ingress) == TalkerFailureCode::destinationAddressInUse;
        if (!waits) {
            blocked->failedStreamDel(*index);
        } else if (addressFree(*stream)) {
            processTalkerAdvertiseJoin(ingress, streamDataTalkerAttribute(streamId));
        }
        units -= std::min(units, 1 + (spent_ - before));
    }
    if (blocked->empty() && macDaBlocked(macDa) == blocked) macDaBlockedDel(macDa);
    return true;
}

}  // namespace Msrp
