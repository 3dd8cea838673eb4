/// Ports: where MSRP is configured, where it runs, and what changes with link and speed.
#include "Mrp/PeriodicSm.h"
#include "Msrp/MsrpSm.h"
#include "Msrp/lifecycle/ReviewSm.h"

#include <algorithm>

namespace Msrp {

bool MsrpSm::actsOn(IntfId intf) const { return status()->intfStatus(intf) != nullptr && acts(); }

bool MsrpSm::isLinkUp(IntfId intf) const {
    const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    return phy && phy->linkStatus() == Interface::LinkStatus::linkUp;
}

bool MsrpSm::runs(IntfId intf) const {
    const std::shared_ptr<const IntfStatus> intfStatus = status()->intfStatus(intf);
    return intfStatus && std::ranges::any_of(bothClasses, [&](SrClassId srClass) {
               return intfStatus->srClassState(srClass) != SrClassState::NotSupported;
           });
}

std::vector<IntfId> MsrpSm::portsWithStatus() const {
    std::vector<IntfId> ports;
    status()->intfStatus().each([&](IntfId intf, const auto&) { ports.push_back(intf); });
    return ports;
}

void MsrpSm::handleIntfEnable() {
    for (auto intf = config().intfEnable().firstKey(); intf; intf = config().intfEnable().nextKey(*intf)) {
        handleIntfEnable(*intf);
    }
}

void MsrpSm::handleIntfEnable(IntfId intf) {
    if (!initialized() || takingOver_) return;
    const bool enabled = isEnabled(intf);
    trace("MsrpSm::handleIntfEnable( ", intf, " ) enabled: ", enabled);
    ringTrace("handleIntfEnable", intf.number(), enabled ? 1 : 0);
    if (standbyMode()) {
        if (enabled) {
            inputs_.msrpLib->mrpInterfaceEnable(intf);
        } else {
            inputs_.msrpLib->mrpInterfaceDisable(intf);
        }
        return;
    }
    if (!enabled) {
        if (status()->intfStatus(intf)) removePort(intf);
        doMaybeStopMsrp();
        return;
    }
    inputs_.qosMsrpConfig->configPriorityIs(qosPriority);
    inputs_.qosMsrpConfig->intfConfigPriorityIs(qosPriority);
    if (!status()->intfStatus(intf)) createIntfStatus(intf);
    const bool someClass = srClassSupported(SrClassId::SrClassB) || srClassSupported(SrClassId::SrClassA);
    const bool timed = !inputs_.time || inputs_.time->capable(intf);
    const bool mayRun = isLinkUp(intf) && isPortForwarding(intf) && someClass && timed;
    if (!mayRun) stopPort(intf);
    if (busy(intf)) {
        endsAfterWork(intf, mayRun ? Ending::none : Ending::stop);
    } else if (mayRun) {
        admitPort(intf);
    } else {
        (void)isAttrLogOutClogged();
        inputs_.msrpLib->mrpInterfaceDisable(intf);
    }
}

void MsrpSm::handleTime(IntfId intf) {
    if (!actsOn(intf) || !inputs_.time->asked()) return;
    const bool capable = inputs_.time->capable(intf);
    if (capable ? withoutTime_.erase(intf) != 0 : withoutTime_.insert(intf).second)
        log(MSRP_NOTIF, Runtime::format(capable ? "%s keeps common time with its neighbour"
                                                : "%s keeps no common time with its neighbour",
                                        intf));
    handleIntfEnable(intf);
}

void MsrpSm::settlePort(IntfId intf) {
    if (forgetDue_.erase(intf) != 0) inputs_.msrpLib->mrpCleanUpIntfDatabase(intf);
    if (const auto due = settleDue_.extract(intf)) {
        // It ends also when it is to run again by now: what its peer had said does not count any more.
        if (due.mapped() == Ending::remove) removeIntfStatus(intf);
        if (due.mapped() == Ending::stop) inputs_.msrpLib->mrpInterfaceDisable(intf);
        handleIntfEnable(intf);
    }
    for (const SrClassId srClass : bothClasses) {
        const auto due = domainDue_.extract({intf, srClass});
        if (!due || !actsOn(intf)) continue;
        const auto& [attr, join] = due.mapped();
        if (join) {
            processDomainVectorJoin(intf, attr);
            if (!domainDue_.contains({intf, srClass})) inputs_.msrpLib->mrpPortOpened(intf);
        } else {
            processDomainVectorLeave(intf, attr);
        }
    }
}

void MsrpSm::forgetRegistrations(IntfId intf) {
    if (busy(intf)) {
        forgetDue_.insert(intf);
    } else {
        inputs_.msrpLib->mrpCleanUpIntfDatabase(intf);
    }
}

void MsrpSm::createIntfStatus(IntfId intf) {
    const auto intfStatus = status()->intfStatusIs(intf, now());
    reservedFrames_.erase(intf);
    for (const SrClassId srClass : bothClasses) intfStatus->classBandwidthAllocatedIs(srClass, 0);
    for (const SrClassId srClass : bothClasses)
        intfStatus->srClassStateIs(srClass, SrClassState::NotSupported);
    for (U32 counter = 0; counter < msrpCounters; ++counter) {
        intfStatus->rxCountersIs(MsrpCounter{counter}, 0);
        intfStatus->txCountersIs(MsrpCounter{counter}, 0);
    }
    setLinkStatus(intf);
    setSpeed(intf);
    setPortState(intf);
    doMaybeStopMsrp();
}

void MsrpSm::admitPort(IntfId intf) {
    inputs_.msrpLib->mrpInterfaceEnable(intf);
    const auto intfStatus = status()->intfStatus(intf);
    if (!intfStatus->lvAllSent()) {
        if (Mrp::PeriodicSm* periodic = inputs_.msrpLib->periodicSm()) periodic->transmitAllLeaveAll(intf);
        intfStatus->lvAllSentIs(true);
    }
    for (const SrClassId srClass : bothClasses) {
        if (srClassSupported(srClass) && intfStatus->srClassState(srClass) == SrClassState::NotSupported) {
            setSrClassState(intf, srClass, SrClassState::WaitingForPeer);
        }
    }
}

void MsrpSm::stopPort(IntfId intf) {
    status()->intfStatus(intf)->lvAllSentIs(false);
    leaveClasses(intf);
}

void MsrpSm::leaveClasses(IntfId intf) {
    const bool ran = runs(intf);
    for (const SrClassId srClass : bothClasses) setSrClassState(intf, srClass, SrClassState::NotSupported);
    if (ran) releaseListeners(intf);
}

void MsrpSm::refreshPort(IntfId intf) {
    setPortState(intf);
    handleIntfEnable(intf);
}

void MsrpSm::removePort(IntfId intf) {
    stopPort(intf);
    if (busy(intf)) {
        endsAfterWork(intf, Ending::remove);
    } else {
        removeIntfStatus(intf);
    }
}

void MsrpSm::endsAfterWork(IntfId intf, Ending ending) {
    Ending& due = settleDue_.try_emplace(intf, ending).first->second;
    due = std::max(due, ending);
}

void MsrpSm::removeIntfStatus(IntfId intf) {
    // What was withdrawn before still goes out while the link is up.
    inputs_.msrpLib->mrpInterfaceDisable(intf);
    bandwidthFailedIntfDel(intf);
    bandwidthReleasedDel(intf);
    withoutTime_.erase(intf);
    status()->intfStatusDel(intf);
}

void MsrpSm::withdrawPorts() {
    if (takingOver_) chores_.finish();
    ending_ = true;
    const auto& ports = status()->intfStatus();
    for (auto intf = ports.firstKey(); intf; intf = ports.nextKey(*intf)) removePort(*intf);
    chores_.finish();
    // What went with the ports leaves the published status now, not at a review to come.
    msrpDeletionSm_->finishReview();
    doMaybeStopMsrp();
}

void MsrpSm::readmitPort(IntfId intf) {
    leaveClasses(intf);
    forgetRegistrations(intf);
    handleIntfEnable(intf);
}

void MsrpSm::releaseListeners(IntfId intf) {
    chores_.add(portLane(intf), [this, intf, next = U64{0}](unsigned& units) mutable {
        return walkStreams(0, next, units, [&](U64 id, StreamData& stream) {
            const ListenerState state = stream.listenerStateOrig(intf);
            if (state != ListenerState::Ignore) processListenerLeave(intf, MsrpListenerAttribute{id, state});
        });
    });
}

void MsrpSm::followIntf(IntfId intf) {
    if (!actsOn(intf)) return;
    const auto intfStatus = status()->intfStatus(intf);
    if (intfStatus->speedEnum() == inputs_.ethPhyIntfStatusDir->intfStatus(intf)->speedEnum()) return;
    // A port that runs has given out bandwidth by the speed of the record before.
    if (runs(intf)) return handleSpeed(intf);
    setSpeed(intf);
}

void MsrpSm::setLinkStatus(IntfId intf) {
    const auto intfStatus = status()->intfStatus(intf);
    if (!intfStatus || standbyMode()) return;
    const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    const auto link = phy ? phy->linkStatus() : Interface::LinkStatus::linkUnknown;
    if (link == intfStatus->linkStatus()) return;
    intfStatus->linkStatusIs(link);
    if (link == Interface::LinkStatus::linkUp) {
        trace("Interface ", intf, " link status is up");
        log(MSRP_NOTIF, Runtime::format("%s link status is up", intf));
    } else {
        trace("Interface ", intf, " link status is down");
        log(MSRP_ERROR, Runtime::format("%s link status is down", intf));
    }
}

void MsrpSm::handleLinkStatus(IntfId intf) {
    trace("MsrpSm::handleLinkStatus( ", intf, " )");
    ringTrace("handleLinkStatus", intf.number());
    if (!actsOn(intf)) return;
    setLinkStatus(intf);
    refreshPort(intf);
}

void MsrpSm::setSpeed(IntfId intf) {
    const auto phy = inputs_.ethPhyIntfStatusDir->intfStatus(intf);
    status()->intfStatus(intf)->speedEnumIs(phy ? phy->speedEnum() : Interface::Speed::speedUnknown);
}

void MsrpSm::handleSpeed(IntfId intf) {
    trace("MsrpSm::handleSpeed( ", intf, " )");
    ringTrace("handleSpeed", intf.number());
    if (!actsOn(intf)) return;
    error(Runtime::format("%s link speed changed", intf));
    setSpeed(intf);
    readmitPort(intf);
}

}  // namespace Msrp
