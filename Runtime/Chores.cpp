#include "Runtime/Chores.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Runtime {

Chores::Chores(Loop& loop, unsigned unitsPerTurn, std::function<void(Lane)> idle)
    : unitsPerTurn_{unitsPerTurn}, idle_{std::move(idle)}, left_{unitsPerTurn}, turn_{loop, [this] {
                                                                                          left_ =
                                                                                              unitsPerTurn_;
                                                                                          run();
                                                                                      }} {}

void Chores::add(Lane lane, Job job) {
    std::deque<Job>& jobs = lanes_[lane];
    if (jobs.empty()) order_.push_back(lane);
    jobs.push_back(std::move(job));
    run();
}

void Chores::finish() {
    while (busy()) {
        left_ = std::numeric_limits<unsigned>::max();
        run();
    }
    left_ = unitsPerTurn_;
}

void Chores::clear() {
    lanes_.clear();
    order_.clear();
    ++cleared_;
}

void Chores::run() {
    if (std::exchange(running_, true)) return;
    while (left_ > 0 && !order_.empty()) piece();
    running_ = false;
    if (left_ < unitsPerTurn_ && !turn_.armed()) turn_.armIn(Duration{0});
}

void Chores::piece() {
    constexpr unsigned lanesPerTurn = 8;
    const Lane lane = order_.front();
    order_.pop_front();
    const unsigned given = std::min(left_, std::max(left_ / lanesPerTurn, unitsPerTurn_ / lanesPerTurn + 1));
    unsigned units = given;
    // It may add to its own lane, or have everything dropped.
    Job job = std::move(lanes_[lane].front());
    const unsigned cleared = cleared_;
    const bool done = job(units);
    left_ -= std::min(left_, std::max(given - std::min(given, units), 1U));
    if (cleared_ != cleared) return;
    std::deque<Job>& jobs = lanes_[lane];
    if (done) {
        jobs.pop_front();
    } else {
        jobs.front() = std::move(job);
    }
    if (!jobs.empty()) return order_.push_back(lane);
    lanes_.erase(lane);
    if (idle_) idle_(lane);
}

}  // namespace Runtime
