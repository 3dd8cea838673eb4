#include "Msrp/lifecycle/ReviewSm.h"

#include "Msrp/MsrpSm.h"

#include <cstdlib>

namespace Msrp {

namespace {

// At most four reviews a second, a tenth of a second apart and as long after they were asked for.
constexpr double reviewPeriod = 1.0;
constexpr unsigned reviewCount = 4;
constexpr double reviewSpacing = 0.1;
constexpr double reviewDelay = 0.1;
/// Seconds until the next try while the log is clogged.
constexpr double cloggedRetry = 0.1;

}  // namespace

ReviewSm::ReviewSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog, const char* pauseVariable)
    : msrpSm_{msrpSm},
      attrLog_{attrLog},
      pauseVariable_{pauseVariable},
      clock_{std::make_shared<Runtime::ClockNotifiee>(msrpSm.loop(), [this] { doReview(); })} {}

void ReviewSm::handleInitialized() {
    reviewTimerIs(clock_, reviewPeriod, reviewCount, reviewSpacing, reviewDelay);
    initializedIs(true);
    doUpdateReviewTimer();
}

void ReviewSm::reviewTimerIs(std::shared_ptr<Runtime::ClockNotifiee> notifiee, double period, unsigned count,
                             double spacing, double delay) {
    reviewTimer_ = std::make_unique<Runtime::ReviewTimer>(std::move(notifiee), period, count, spacing, delay);
}

void ReviewSm::doUpdateReviewTimer() {
    if (!reviewTimer_ || msrpSm_.reviewsSuspended() || reviewTimer_->reviewPending() || !workPending())
        return;
    if (std::getenv(pauseVariable_) != nullptr) return;
    reviewTimer_->doUpdateNextReview();
}

bool ReviewSm::mustWait() {
    clogged_ = attrLog_ != nullptr && attrLog_->isAttrLogOutClogged();
    if (!clogged_ && left_-- > 0) return false;
    clock_->timeMinIs(clogged_ ? msrpSm_.now() + cloggedRetry : msrpSm_.now());
    return true;
}

void ReviewSm::finishReview() {
    clogged_ = false;
    while (workPending() && !clogged_ && !msrpSm_.reviewsSuspended()) doReview();
}

void ReviewSm::reviewCompleted() {
    reviewTimer_->lastReviewIs(msrpSm_.now());
    doUpdateReviewTimer();
}

MsrpAdditionSm::MsrpAdditionSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog)
    : ReviewSm{msrpSm, attrLog, "PAUSE_ADDITION_SM"} {
    handleInitialized();
}

bool MsrpAdditionSm::workPending() const { return !msrpSm_.addPendingStream().empty(); }

void MsrpAdditionSm::doReview() {
    if (!initialized() || msrpSm_.reviewsSuspended()) return;
    pieceBegins();
    auto& pending = msrpSm_.addPendingStream();
    for (auto at = pending.begin(); at != pending.end();) {
        if (mustWait()) return;
        const U64 id = at->first;
        msrpSm_.status()->publish(id);
        pending.erase(id);
        at = pending.upper_bound(id);
    }
    reviewCompleted();
}

MsrpDeletionSm::MsrpDeletionSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog)
    : ReviewSm{msrpSm, attrLog, "PAUSE_DELETION_SM"} {
    handleInitialized();
}

bool MsrpDeletionSm::workPending() const {
    return !msrpSm_.deletePendingStream().empty() || !msrpSm_.deletePendingStreamIntfs().empty();
}

void MsrpDeletionSm::doReview() {
    if (!initialized() || msrpSm_.reviewsSuspended()) return;
    pieceBegins();
    if (withdrawStreams() && deleteTalkers()) reviewCompleted();
    msrpSm_.doMaybeStopMsrp();
}

bool MsrpDeletionSm::withdrawStreams() {
    auto& pending = msrpSm_.deletePendingStream();
    for (auto at = pending.begin(); at != pending.end();) {
        if (mustWait()) return false;
        const U64 id = at->first;
        msrpSm_.status()->registeredStreamsDel(id);
        msrpSm_.deletePendingStreamIntfsDel(id);
        pending.erase(id);
        at = pending.upper_bound(id);
    }
    return true;
}

bool MsrpDeletionSm::deleteTalkers() {
    auto& pending = msrpSm_.deletePendingStreamIntfs();
    for (auto at = pending.begin(); at != pending.end();) {
        if (mustWait()) return false;
        const U64 id = at->first;
        const auto intfs = at->second;
        if (const auto stream = msrpSm_.streamList(id)) {
            while (const auto intf = intfs->deletePendingTalker().firstKey()) {
                stream->delTalkerStateAndAge(*intf);
                intfs->deletePendingTalkerDel(*intf);
            }
        }
        pending.erase(id);
        at = pending.upper_bound(id);
    }
    return true;
}

}  // namespace Msrp
