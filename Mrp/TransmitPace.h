/// Holds a point-to-point port to three transmit opportunities in any 1.5 times JoinTime (IEEE
/// 802.1Q 10.7.4.1).
#pragma once

#include "Runtime/Time.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace Mrp {

class TransmitPace {
public:
    /// When the next opportunity may be taken.
    [[nodiscard]] Runtime::Time earliest(Runtime::Time now, Runtime::Duration joinTime) const {
        const Runtime::Time oldest = taken_[next_];
        return oldest == Runtime::Time{} ? now : std::max(now, oldest + joinTime * 3 / 2);
    }
    void take(Runtime::Time now) {
        taken_[next_] = now;
        next_ = (next_ + 1) % taken_.size();
    }

private:
    std::array<Runtime::Time, 3> taken_{};  ///< zero: never
    std::size_t next_ = 0;                  ///< the oldest one
};

}  // namespace Mrp
