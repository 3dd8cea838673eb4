/// The pending lists: streams on their way into and out of the published status.
#include "Msrp/MsrpSm.h"
#include "Msrp/lifecycle/ReviewSm.h"
#include "Msrp/types/Format.h"

namespace Msrp {

std::shared_ptr<StreamData> MsrpSm::addStreamToAddPending(const U64& id) {
    auto published = status()->registeredStreams(id);
    if (published) {
        if (pending_.remove.contains(id)) removeStreamFromDeletePending(id);
        return published;
    }
    trace("StreamId is added to addPendingStreamList");
    pending_.add[id] = true;
    auto stream = status()->arrivingIs(id);
    streamListIs(stream);
    msrpAdditionSm_->doUpdateReviewTimer();
    return stream;
}

void MsrpSm::removeStreamFromAddPending(const U64& id) {
    pending_.add.erase(id);
    status()->arrivingDel(id);
    streamListDel(id);
}

void MsrpSm::addStreamToDeletePending(const U64& id) {
    if (const auto stream = streamList(id)) {
        // A record that is revived before it is withdrawn must not bring listeners with it that have left.
        while (const auto intf = stream->portWithListener()) {
            listenerStateOrigIs(*stream, *intf, ListenerState::Ignore);
            listenerStateIs(*stream, *intf, ListenerState::Ignore);
        }
    }
    const bool published = status()->registeredStreams(id) != nullptr;
    if (!published) {
        if (pending_.add.contains(id)) removeStreamFromAddPending(id);
        return;
    }
    trace("StreamId is added to deletePendingStreamList");
    pending_.remove[id] = true;
    streamListDel(id);
    removeStreamFromAddPending(id);
    msrpDeletionSm_->doUpdateReviewTimer();
}

void MsrpSm::removeStreamFromDeletePending(const U64& id) {
    pending_.remove.erase(id);
    streamListIs(status()->registeredStreams(id));
}

void MsrpSm::addTalkerToDeletePending(const U64& id, IntfId intf) {
    trace("IntfId is added to deletePendingTalkerList");
    deletePendingStreamIntfsIs(id)->deletePendingTalkerIs(intf, true);
    msrpDeletionSm_->doUpdateReviewTimer();
}

void MsrpSm::removeTalkerFromDeletePending(const U64& id, IntfId intf) { pending_.keepTalker(id, intf); }

void MsrpSm::cleanupStreamDataIfEmpty(const U64& id) {
    const std::shared_ptr<StreamData> stream = streamList(id);
    if (!stream) return;
    const IntfId ingress = stream->ingressIntf();
    if (ingress && getTalkerState(*stream, ingress) != TalkerState::None) return;

    if (const auto group = stream->ethGroup()) {
        const VlanId vlan{stream->vlanId()};
        if (const auto fdb = inputs_.brMsrpConfig->fdbConfig(vlan)) {
            if (fdb->ethGroup(group->addr()) == group) fdb->ethGroupDel(group->addr());
            if (fdb->ethGroup().empty()) inputs_.brMsrpConfig->fdbConfigDel(vlan);
        }
        stream->ethGroupIs(nullptr);
        trace(": Deleted ethGroup since there is no talker");
    }
    for (const auto& [port, enabled] : config().intfEnable()) {
        if (port != ingress && isCandidate(port) && stream->hasListenerStateOrig(port)) {
            // Kept for its listeners, without what its talker brought.
            streams_.destinationIs(*stream, EthAddr{}, 0);
            stream->maxFrameSizeIs(0);
            stream->maxIntervalFramesIs(0);
            stream->dataFramePriorityIs(0);
            stream->rankIs(0);
            stream->accumulatedLatencyIs(0);
            stream->bandwidthIs(0);
            return;
        }
    }
    addStreamToDeletePending(id);
    trace(": Deleted stream data since there are no active talker or listeners");
}

}  // namespace Msrp
