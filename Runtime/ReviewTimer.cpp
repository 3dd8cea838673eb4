#include "Runtime/ReviewTimer.h"

#include <algorithm>

namespace Runtime {

void ClockNotifiee::timeMinIs(double time) { timer_.armAt(Time{secondsDuration(time)}); }

void ReviewTimer::doUpdateNextReview() {
    double next = notifiee_->now() + delay_;
    if (!reviews_.empty()) next = std::max(next, reviews_.back() + spacing_);
    if (reviews_.size() >= count_) next = std::max(next, reviews_.front() + period_);
    notifiee_->timeMinIs(next);
}

void ReviewTimer::lastReviewIs(double time) {
    reviews_.push_back(time);
    while (reviews_.size() > count_) reviews_.pop_front();
}

}  // namespace Runtime
