#include "Runtime/VirtualLoop.h"

namespace Runtime {

bool VirtualLoop::step(Time end) {
    if (runPosted()) return true;
    if (!timerArmed() || nextDue() > end) return false;
    if (nextDue() > now_) now_ = nextDue();
    fireDue(now_);
    return true;
}

void VirtualLoop::runTo(Time end) {
    while (step(end)) {
    }
    now_ = end;
}

std::optional<Time> VirtualLoop::nextTime() const {
    if (anythingPosted()) return now_;
    if (!timerArmed()) return std::nullopt;
    return nextDue();
}

bool VirtualLoop::runUntil(const std::function<bool()>& condition, Duration span) {
    const Time end = now_ + span;
    while (!condition()) {
        if (!step(end)) {
            now_ = end;
            return condition();
        }
    }
    return true;
}

}  // namespace Runtime
