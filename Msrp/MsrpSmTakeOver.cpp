/// Taking over from another agent, or from an earlier run, over the same records.
#include "Mrp/PeriodicSm.h"
#include "Msrp/MsrpSm.h"

#include <algorithm>
#include <map>
#include <set>

namespace Msrp {

void MsrpSm::rebuildStreams() {
    // What an earlier active life left here is not what is published now.
    streamListDelAll();
    addPendingStream_.clear();
    deletePendingStream_.clear();
    deletePendingStreamIntfsDelAll();
    bandwidthReleasedDelAll();
    const auto& published = status()->registeredStreams();
    for (auto id = published.firstKey(); id; id = published.nextKey(*id)) {
        const auto stream = status()->registeredStreams(*id);
        // Withdrawals that waited for a review were known to the other side only.
        if (!stream->ingressIntf()) stream->talkerDelAll();
        for (const StreamPort& port : std::vector{stream->port()}) {
            const auto intfStatus = status()->intfStatus(port.intf);
            if (intfStatus && isActive(intfStatus->srClassState(stream->srClass()))) continue;
            stream->delTalkerStateAndAge(port.intf);
            stream->talkerFailureCodeDel(port.intf);
        }
        streamListIs(stream);
    }
    rebuildQueues();
    rebuildAllocations();
}

void MsrpSm::rebuildQueues() {
    // Who waits keeps its place in the queue, who has gone does not.
    const auto keepsSome = [this](FailedStreamQueue& queue) {
        for (auto index = queue.head(); index; index = queue.next(*index)) {
            if (!streamList(queue.stream(*index))) queue.failedStreamDel(*index);
        }
        return !queue.empty();
    };
    const auto& ports = inputs_.waiting->bandwidthFailedIntf();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        // Whether bandwidth was released meanwhile is not published.
        if (keepsSome(*bandwidthFailedIntf(*intf))) {
            bandwidthReleasedIs(*intf, true);
        } else {
            bandwidthFailedIntfDel(*intf);
        }
    }
    const auto& addresses = inputs_.waiting->macDaBlocked();
    for (auto macDa = addresses.firstKey(); macDa; macDa = addresses.nextKey(*macDa)) {
        if (!keepsSome(*macDaBlocked(*macDa))) macDaBlockedDel(*macDa);
    }
}

void MsrpSm::rebuildAllocations() {
    // What the other side had admitted for streams that it never published is free again.
    std::map<std::pair<IntfId, SrClassId>, U64> admitted;
    for (const auto& [id, stream] : streamList_) {
        if (!stream->ethGroup()) continue;
        for (const auto& [intf, member] : stream->ethGroup()->intf()) {
            if (member && intf != stream->ingressIntf())
                admitted[{intf, stream->srClass()}] += stream->bandwidth();
        }
    }
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        for (const SrClassId srClass : bothClasses)
            status()->intfStatus(*intf)->classBandwidthAllocatedIs(srClass, admitted[{*intf, srClass}]);
    }
}

void MsrpSm::seedEngine() {
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        const auto intfStatus = status()->intfStatus(*intf);
        bool active = false;
        for (const SrClassId srClass : bothClasses) {
            const SrClassState state = intfStatus->srClassState(srClass);
            if (state == SrClassState::NotSupported) continue;
            if (!active) inputs_.msrpLib->mrpInterfaceEnable(*intf);
            active = true;
            transmitSrDomainVector(*intf, srClass, true);
            if (!isActive(state)) continue;
            // What made the port a boundary is not published: any other priority stands for it until the peer
            // speaks.
            const U8 own = srClassPriority(srClass);
            const U8 priority = state == SrClassState::Core ? own : static_cast<U8>((own + 1U) % 8U);
            send(*intf, typeDomain, Mrp::requestSeed,
                 MsrpDomainAttribute{srClass, priority, intfSrPvid(*intf)}.octets());
        }
        Mrp::PeriodicSm* periodic = inputs_.msrpLib->periodicSm();
        if (active && periodic != nullptr) periodic->transmitAllLeaveAll(*intf);
    }
    forEachStream([this](U64, const StreamData& stream) { seedStream(stream); });
}

void MsrpSm::seedStream(const StreamData& stream) {
    const IntfId ingress = stream.ingressIntf();
    for (const StreamPort& port : stream.port()) {
        if (port.listenerStateOrig != ListenerState::Ignore) {
            const MsrpListenerAttribute listener{stream.streamId(), port.listenerStateOrig};
            send(port.intf, typeListener, Mrp::requestSeed, listener.octets(),
                 number(port.listenerStateOrig));
        }
        if (!ingress) continue;
        if (port.intf == ingress && port.listenerState != ListenerState::Ignore) {
            const MsrpListenerAttribute listener{stream.streamId(), port.listenerState};
            send(ingress, typeListener, Mrp::requestDeclare, listener.octets(), number(port.listenerState));
        }
        const U8 request = port.intf == ingress ? Mrp::requestSeed : Mrp::requestDeclare;
        const MsrpTalkerAdvertiseAttribute talker = streamDataTalkerAttribute(stream.streamId());
        if (port.talkerState == TalkerState::Advertise) {
            send(port.intf, typeTalkerAdvertise, request, talker.octets());
        } else if (port.talkerState == TalkerState::Failed) {
            const MsrpTalkerFailedAttribute failed{talker, stream.failedBridgeId(), port.talkerFailureCode};
            send(port.intf, typeTalkerFailed, request, failed.octets());
        }
    }
}

void MsrpSm::catchUpWithConfig() {
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        if (!config().intfEnable(*intf)) {
            handleIntfEnable(*intf);
            continue;
        }
        for (const SrClassId srClass : bothClasses) {
            if (!srClassSupported(srClass)) setSrClassState(*intf, srClass, SrClassState::NotSupported);
        }
        const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(*intf);
        const auto speed = phy ? phy->speedEnum() : Interface::Speed::speedUnknown;
        if (status()->intfStatus(*intf)->speedEnum() != speed) handleSpeed(*intf);
    }
    catchUpWithVlans();
    doUpdateShapeRate();
    // The priority that was declared before is known by the streams that were registered under it.
    const bool priorityChanged = std::ranges::any_of(streamList_, [this](const auto& entry) {
        const StreamData& stream = *entry.second;
        return stream.ingressIntf() && stream.dataFramePriority() != srClassPriority(stream.srClass());
    });
    if (!priorityChanged) return;
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) readmitPort(*intf);
}

void MsrpSm::catchUpWithVlans() {
    std::map<U16, U64> used;  // with one stream of each, for the report
    for (const auto& [id, stream] : streamList_) {
        if (stream->ingressIntf()) used.emplace(stream->vlanId(), id);
    }
    for (const auto& [vlan, stream] : used) {
        for (const IntfId intf : portsWithStatus()) {
            const TalkerFailureCode code = checkVlanConfig(intf, stream, vlan);
            if (code == TalkerFailureCode::noFailure) continue;
            for (const SrClassId srClass : bothClasses) deregisterSrClassStreams(intf, srClass, vlan, code);
        }
    }
}

void MsrpSm::removeLeftovers() {
    std::set<const Bridging::Input::EthGroup*> used;
    for (const auto& [id, stream] : streamList_) used.insert(stream->ethGroup().get());
    const auto& vlans = inputs_.brMsrpConfig->fdbConfig();
    for (auto vlan = vlans.firstKey(); vlan; vlan = vlans.nextKey(*vlan)) {
        const auto fdb = inputs_.brMsrpConfig->fdbConfig(*vlan);
        for (auto address = fdb->ethGroup().firstKey(); address;
             address = fdb->ethGroup().nextKey(*address)) {
            if (!used.contains(fdb->ethGroup(*address).get())) fdb->ethGroupDel(*address);
        }
        if (fdb->ethGroup().empty()) inputs_.brMsrpConfig->fdbConfigDel(*vlan);
    }
    const auto& queues = inputs_.qosMsrpConfig->intfConfig();
    for (auto intf = queues.firstKey(); intf; intf = queues.nextKey(*intf)) doSetQosTxQueueConfig(*intf);
}

}  // namespace Msrp
