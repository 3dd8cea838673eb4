/// The two machines that publish streams and withdraw them, in reviews that the attribute log paces.
#pragma once

#include "Mrp/MrpAttrLogSm.h"
#include "Runtime/ReviewTimer.h"

#include <memory>

namespace Msrp {

class MsrpSm;

/// What both machines share: when they run.  A review never runs inside the handler that asks for it.
class ReviewSm {
public:
    /// `pauseVariable`: environment variable that, while set, keeps the machine from running.  Both
    /// references must outlive the machine; the log may be null.
    ReviewSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog, const char* pauseVariable);
    ReviewSm(const ReviewSm&) = delete;
    ReviewSm& operator=(const ReviewSm&) = delete;
    virtual ~ReviewSm() = default;

    void handleInitialized();
    [[nodiscard]] bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) { initialized_ = initialized; }
    /// Plans a review when there is work and nothing keeps the machine from it.
    void doUpdateReviewTimer();
    /// One piece of a review: where many streams wait, the rest goes on in the next turn of the loop.
    virtual void doReview() = 0;
    /// Reviews until nothing is left, or the log takes no more.
    void finishReview();
    void reviewTimerIs(std::shared_ptr<Runtime::ClockNotifiee> notifiee, double period, unsigned count,
                       double spacing, double delay);
    void reviewTimerDel() { reviewTimer_.reset(); }
    void clockDel() { clock_.reset(); }

protected:
    [[nodiscard]] virtual bool workPending() const = 0;
    /// To be asked before each entry: true, with a next try planned, when the attribute log takes no more,
    /// and when this piece has been long enough.
    bool mustWait();
    void pieceBegins() { left_ = entriesAtOnce; }
    void reviewCompleted();

    MsrpSm& msrpSm_;

private:
    static constexpr unsigned entriesAtOnce = 256;

    Mrp::MrpAttrLogSm* attrLog_;
    unsigned left_ = 0;     ///< of this piece
    bool clogged_ = false;  ///< the last piece ended because of the log
    const char* pauseVariable_;
    bool initialized_ = false;
    std::shared_ptr<Runtime::ClockNotifiee> clock_;
    std::unique_ptr<Runtime::ReviewTimer> reviewTimer_;
};

/// Publishes the streams that were created.
class MsrpAdditionSm : public ReviewSm {
public:
    MsrpAdditionSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog);
    void doReview() override;

private:
    [[nodiscard]] bool workPending() const override;
};

/// Withdraws the streams that ended, and forgets talkers that left single ports.
class MsrpDeletionSm : public ReviewSm {
public:
    MsrpDeletionSm(MsrpSm& msrpSm, Mrp::MrpAttrLogSm* attrLog);
    void doReview() override;

private:
    [[nodiscard]] bool workPending() const override;
    /// Each false when the log cut it short.
    bool withdrawStreams();
    bool deleteTalkers();
};

}  // namespace Msrp
