/// A timer for work that is done in reviews: asked for as often as one likes, it calls its review function at
/// a bounded rate.
#pragma once

#include "Runtime/Loop.h"

#include <deque>
#include <functional>
#include <memory>

namespace Runtime {

/// The review function together with the clock that calls it.
class ClockNotifiee {
public:
    ClockNotifiee(Loop& loop, std::function<void()> review)
        : timer_{loop, [this] { review_(); }}, review_{std::move(review)}, loop_{loop} {}

    /// Calls the review at `time` (seconds on the loop's clock), in place of any call that was planned.
    void timeMinIs(double time);
    void cancel() { timer_.cancel(); }
    [[nodiscard]] bool pending() const { return timer_.armed(); }
    [[nodiscard]] double now() const { return seconds(loop_.now()); }

private:
    Timer timer_;
    std::function<void()> review_;
    Loop& loop_;
};

class ReviewTimer {
public:
    /// At most `count` reviews in any `period`, each at least `spacing` after the one before and `delay`
    /// after it was asked for.  Seconds.
    ReviewTimer(std::shared_ptr<ClockNotifiee> notifiee, double period, unsigned count, double spacing,
                double delay)
        : notifiee_{std::move(notifiee)}, period_{period}, count_{count}, spacing_{spacing}, delay_{delay} {}

    [[nodiscard]] bool reviewPending() const { return notifiee_->pending(); }
    /// Plans the next review as early as the rate allows.
    void doUpdateNextReview();
    /// Tells that a review has been completed at `time`.
    void lastReviewIs(double time);

private:
    std::shared_ptr<ClockNotifiee> notifiee_;
    double period_;
    unsigned count_;
    double spacing_;
    double delay_;
    std::deque<double> reviews_;  ///< times of the last `count_` completed reviews, oldest first
};

}  // namespace Runtime
