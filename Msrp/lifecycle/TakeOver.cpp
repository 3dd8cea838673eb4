/// Taking over from another agent, or from an earlier run, over the same records.
#include "Mrp/PeriodicSm.h"
#include "Msrp/MsrpSm.h"
#include "Msrp/lifecycle/ReviewSm.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace Msrp {

bool MsrpSm::rebuildStreams(U64& next, unsigned& units) {
    const auto& published = status()->registeredStreams();
    for (auto id = published.from(next); id; id = published.nextKey(*id)) {
        next = *id;
        if (units == 0) return false;
        --units;
        const auto stream = status()->registeredStreams(*id);
        // What was read from elsewhere may say what no talker could have said.
        if (stream->vlanId() < VlanId::min || stream->vlanId() > VlanId::max) {
            stream->ingressIntfIs({});
            stream->ethGroupIs(nullptr);
        }
        // Withdrawals that waited for a review were known to the other side only.
        if (!stream->ingressIntf()) stream->talkerDelAll();
        findGroup(*stream);
        streamListIs(stream);
    }
    return true;
}

void MsrpSm::findGroup(StreamData& stream) {
    // What was read from elsewhere knows the group's address only.
    if (!stream.ethGroup()) return;
    const auto vlan = inputs_.brMsrpConfig->fdbConfig(VlanId{stream.vlanId()});
    stream.ethGroupIs(vlan ? vlan->ethGroup(stream.ethGroup()->addr()) : nullptr);
}

void MsrpSm::rebuildQueues() {
    // Who waits keeps its place in the queue, who has gone does not.
    const auto keepsSome = [this](FailedStreamQueue& queue) {
        for (auto index = queue.head(); index; index = queue.after(*index)) {
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
    reservedFrames_.clear();
    for (const auto& [id, stream] : streamList()) {
        if (!stream->ethGroup() || !stream->ingressIntf()) continue;
        for (const auto& [intf, member] : stream->ethGroup()->intf()) {
            if (!member || intf == stream->ingressIntf()) continue;
            admitted[{intf, stream->srClass()}] += stream->bandwidth();
            frameReserved(intf, stream->srClass(), stream->maxFrameSize(), true);
        }
    }
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) {
        for (const SrClassId srClass : bothClasses)
            status()->intfStatus(*intf)->classBandwidthAllocatedIs(srClass, admitted[{*intf, srClass}]);
    }
}

void MsrpSm::takeOver() {
    takingOver_ = true;
    // What arrives meanwhile waits, and nothing is said until all is known that was declared.
    inputs_.msrpLib->mrpPause(true);
    // What an earlier active life left here is not what is published now.
    streamListDelAll();
    pending_.add.clear();
    status()->arrivingDelAll();
    pending_.remove.clear();
    deletePendingStreamIntfsDelAll();
    bandwidthReleasedDelAll();
    chores_.add(switchLane,
                [this, next = U64{0}](unsigned& units) mutable { return rebuildStreams(next, units); });
    chores_.add(switchLane, [this](unsigned&) {
        rebuildQueues();
        rebuildAllocations();
        chores_.spend(streams_.size());
        return true;
    });
    chores_.add(switchLane, [this](unsigned&) {
        removeLeftovers();
        chores_.spend(streams_.size());
        return true;
    });
    std::vector<IntfId> ports = portsWithStatus();
    std::ranges::reverse(ports);
    chores_.add(switchLane, [this, seeding = Seeding{.ports = std::move(ports)}](unsigned& units) mutable {
        return seedEngine(seeding, units);
    });
    chores_.add(switchLane, [this, next = U64{0}](unsigned& units) mutable {
        return walkStreams(0, next, units, [this](U64, StreamData& stream) { catchUpWithStream(stream); });
    });
    chores_.add(switchLane, [this](unsigned&) {
        finishTakeOver();
        chores_.spend(streams_.size());
        return true;
    });
}

bool MsrpSm::seedEngine(Seeding& seeding, unsigned& units) {
    for (; !seeding.ports.empty(); seeding.ports.pop_back()) {
        const IntfId intf = seeding.ports.back();
        if (seeding.next == 0 && !seedDomains(intf)) continue;
        const bool done = walkStreams(0, seeding.next, units,
                                      [&](U64, const StreamData& stream) { seedStream(stream, intf); });
        if (!done) return false;
        if (Mrp::PeriodicSm* periodic = inputs_.msrpLib->periodicSm()) periodic->transmitAllLeaveAll(intf);
        seeding.next = 0;
    }
    return true;
}

bool MsrpSm::seedDomains(IntfId intf) {
    bool active = false;
    for (const SrClassId srClass : bothClasses) {
        const SrClassState state = status()->intfStatus(intf)->srClassState(srClass);
        if (state == SrClassState::NotSupported) continue;
        if (!active) inputs_.msrpLib->mrpInterfaceEnable(intf);
        active = true;
        send(intf, typeDomain, Mrp::requestResume, domainOf(intf, srClass).octets());
        seededDomains_.insert_or_assign({intf, srClass}, domainOf(intf, srClass));
        if (!isActive(state)) continue;
        // What made the port a boundary is not published: any other priority stands for it until the peer
        // speaks.
        const U8 own = srClassPriority(srClass);
        const U8 priority = state == SrClassState::Core ? own : static_cast<U8>((own + 1U) % 8U);
        send(intf, typeDomain, Mrp::requestSeed,
             MsrpDomainAttribute{srClass, priority, intfSrPvid(intf)}.octets());
    }
    return active;
}

void MsrpSm::seedStream(const StreamData& stream, IntfId intf) {
    const StreamPort* port = stream.port(intf);
    if (port == nullptr) return;
    const auto sendListener = [&](U8 request, ListenerState state) {
        if (state == ListenerState::Ignore) return;
        const MsrpListenerAttribute listener{stream.streamId(), state};
        send(intf, typeListener, request, listener.octets(), number(state));
    };
    sendListener(Mrp::requestSeed, port->listenerStateOrig);
    const IntfId ingress = stream.ingressIntf();
    if (!ingress) return;
    if (intf != ingress) return declareAgain(intf, stream, Mrp::requestResume);
    sendListener(Mrp::requestResume, port->listenerState);
    const MsrpTalkerAdvertiseAttribute talker = streamDataTalkerAttribute(stream.streamId());
    if (port->talkerState == TalkerState::Advertise) {
        send(intf, typeTalkerAdvertise, Mrp::requestSeed, talker.octets());
    } else if (port->talkerState == TalkerState::Failed) {
        const MsrpTalkerFailedAttribute failed{talker, stream.failedBridgeId(), port->talkerFailureCode};
        send(intf, typeTalkerFailed, Mrp::requestSeed, failed.octets());
    }
}

void MsrpSm::finishTakeOver() {
    takingOver_ = false;
    refreshPorts();
    catchUpWithConfig();
    // Behind the streams without a talker, which have no VLAN.
    chores_.add(switchLane,
                [this, next = U16{1}](unsigned& units) mutable { return catchUpWithVlans(next, units); });
    if (inputs_.refusals) {
        inputs_.refusals->port().each([this](IntfId intf, const auto&) { reviewShaping(intf); });
    }
    inputs_.msrpLib->mrpPause(false);
    // Reviews that were asked for in standby are made up for.
    msrpAdditionSm_->doUpdateReviewTimer();
    msrpDeletionSm_->doUpdateReviewTimer();
}

void MsrpSm::catchUpWithStream(StreamData& stream) {
    const U64 id = stream.streamId();
    // What the other side had begun on a port and did not come to the end of; the talker's port last, since
    // without a talker nothing is withdrawn.
    std::vector<StreamPort> ports = stream.port();
    std::partition(ports.begin(), ports.end(),
                   [&](const StreamPort& port) { return port.intf != stream.ingressIntf(); });
    for (const StreamPort& port : ports) {
        if (!streamList(id)) return;
        catchUpWithStream(stream, port);
    }
    if (!streamList(id)) return;
    reviewGroupOf(stream);
    cleanupStreamDataIfEmpty(id);
}

void MsrpSm::catchUpWithStream(StreamData& stream, const StreamPort& port) {
    const auto intfStatus = status()->intfStatus(port.intf);
    if (!intfStatus) return dropPort(stream, port.intf);
    const bool hasTalker = static_cast<bool>(stream.ingressIntf());
    const bool member = hasTalker && port.intf != stream.ingressIntf() && stream.ethGroup() &&
                        stream.ethGroup()->intf(port.intf);
    if (member && !wantsStream(port.listenerState))
        removeListener(port.intf, stream.streamId(), port.listenerState);
    const SrClassState state = hasTalker ? intfStatus->srClassState(stream.srClass())
                                         : std::max(intfStatus->srClassState(SrClassId::SrClassA),
                                                    intfStatus->srClassState(SrClassId::SrClassB));
    ClassWalk exit{.intf = port.intf, .srClass = stream.srClass(), .code = TalkerFailureCode::noFailure};
    if (!isActive(state)) {
        exitClass(exit, stream.streamId(), stream);
    } else if (state == SrClassState::Boundary && hasTalker &&
               (port.intf != stream.ingressIntf() ||
                port.talkerFailureCode == TalkerFailureCode::noFailure)) {
        exit.code = TalkerFailureCode::egressPortNotAvbCapable;
        exitClass(exit, stream.streamId(), stream);
    } else if (port.talkerFailureCode == TalkerFailureCode::insufficientResources) {
        reviewShapingOf(stream, port.intf);
    }
}

void MsrpSm::dropPort(StreamData& stream, IntfId intf) {
    if (intf == stream.ingressIntf()) {
        propagateTalkerAdvertiseLeave(intf, stream.streamId());
        clearIngress(stream);
    }
    if (const auto group = stream.ethGroup(); group && group->intf(intf)) {
        group->intfDel(intf);
        if (group->intf().empty() && stream.ingressIntf()) group->intfIs(stream.ingressIntf(), true);
    }
    stream.delTalkerStateAndAge(intf);
    stream.talkerFailureCodeDel(intf);
    listenerStateIs(stream, intf, ListenerState::Ignore);
    listenerStateOrigIs(stream, intf, ListenerState::Ignore);
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
    // Another value may have been configured since it was declared.
    for (const auto& [key, declared] : std::exchange(seededDomains_, {})) {
        const auto& [intf, srClass] = key;
        if (actsOn(intf) && !std::ranges::equal(domainOf(intf, srClass).octets(), declared.octets()))
            readmitPort(intf);
    }
    doUpdateShapeRate();
    // The priority that was declared before is known by the streams that were registered under it.
    const bool priorityChanged = std::ranges::any_of(streamList(), [this](const auto& entry) {
        const StreamData& stream = *entry.second;
        return stream.ingressIntf() && stream.dataFramePriority() != srClassPriority(stream.srClass());
    });
    if (!priorityChanged) return;
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) readmitPort(*intf);
}

bool MsrpSm::catchUpWithVlans(U16& next, unsigned& units) {
    const std::vector<IntfId> ports = portsWithStatus();
    const auto cost = static_cast<unsigned>(ports.size());
    const auto& vlans = streams_.byVlan();
    for (auto vlan = vlans.lower_bound(next); vlan != vlans.end(); vlan = vlans.lower_bound(next)) {
        if (units == 0) return false;
        const unsigned before = spent_;
        unsigned looked = 0;
        next = static_cast<U16>(vlan->first + 1);
        // One with a talker, for the report; without one there is nothing to withdraw.
        const auto example = std::ranges::find_if(vlan->second, [&](U64 id) {
            ++looked;
            return static_cast<bool>(streamList(id)->ingressIntf());
        });
        units -= std::min(units, 1 + looked / 8);
        if (example == vlan->second.end()) continue;
        for (const IntfId intf : ports) {
            const TalkerFailureCode code = checkVlanConfig(intf, *example, vlan->first);
            if (code == TalkerFailureCode::noFailure) continue;
            spend(1);
            for (const SrClassId srClass : bothClasses)
                deregisterSrClassStreams(intf, srClass, vlan->first, code);
        }
        units -= std::min(units, cost / 4 + (spent_ - before));
    }
    return true;
}

void MsrpSm::removeLeftovers() {
    std::set<const Bridging::Input::EthGroup*> used;
    for (const auto& [id, stream] : streamList()) used.insert(stream->ethGroup().get());
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
