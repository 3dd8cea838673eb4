/// Time as the whole switch counts it: handed down from the loop, never read from a wall clock.
#pragma once

#include <chrono>
#include <cstdint>

namespace Runtime {

/// A clock without `now()`: only a loop tells the time.
struct LoopClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<LoopClock>;
    static constexpr bool is_steady = true;
};

using Duration = LoopClock::duration;
using Time = LoopClock::time_point;
/// The time of day, for what people lay beside other people's logs; nothing is decided by it.
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;

/// Seconds since the clock's start, the form in which records carry times.
constexpr double seconds(Time t) { return std::chrono::duration<double>(t.time_since_epoch()).count(); }
constexpr Duration secondsDuration(double s) {
    return std::chrono::duration_cast<Duration>(std::chrono::duration<double>(s));
}

}  // namespace Runtime
