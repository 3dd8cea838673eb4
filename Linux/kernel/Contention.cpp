#include "Linux/kernel/Contention.h"

namespace Linux {

bool Contention::changed(Runtime::Time now) {
    const bool before = leftAlone(now);
    if (times_.size() == limit) times_.erase(times_.begin());
    times_.push_back(now);
    return !before && leftAlone(now);
}

bool Contention::leftAlone(Runtime::Time now) const {
    return times_.size() == limit && times_.back() - times_.front() < span && !over(now);
}

bool Contention::over(Runtime::Time now) const { return times_.empty() || now - times_.back() >= span; }

}  // namespace Linux
