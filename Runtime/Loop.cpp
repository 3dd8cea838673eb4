#include "Runtime/Loop.h"

namespace Runtime {

namespace {
/// Tasks that one call of runPosted may run.
constexpr std::size_t taskLimit = 100'000;
}  // namespace

void Timer::armAt(Time when) {
    cancel();
    when_ = when;
    order_ = loop_.nextOrder_++;
    loop_.timers_.emplace(std::pair{when_, order_}, this);
}

void Timer::armIn(Duration span) { armAt(loop_.now() + span); }

void Timer::cancel() {
    if (order_ == 0) return;
    loop_.timers_.erase({when_, order_});
    order_ = 0;
}

bool Loop::runPosted() {
    std::size_t ran = 0;
    while (!posted_.empty() && ran < taskLimit) {
        // Tasks may post more: run the batch that is there, then look again.
        auto batch = std::exchange(posted_, {});
        ran += batch.size();
        for (auto& task : batch) task();
    }
    return !posted_.empty();
}

void Loop::fireDue(Time now, Duration span) {
    const std::uint64_t armedBefore = nextOrder_;
    while (!timers_.empty()) {
        const auto first = timers_.begin();
        if (first->first.first > now || first->first.second >= armedBefore) return;
        Timer* timer = first->second;
        timers_.erase(first);
        timer->order_ = 0;
        timer->fire_();
        runPosted();
        if (this->now() - now >= span) return;
    }
}

}  // namespace Runtime
