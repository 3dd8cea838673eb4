/// A loop whose clock jumps to the next due event: the same code, without waiting and always in the same
/// order.
#pragma once

#include "Runtime/Loop.h"

#include <functional>
#include <optional>

namespace Runtime {

class VirtualLoop : public Loop {
public:
    [[nodiscard]] Time now() const override { return now_; }
    /// Counted from the beginning of 1970.
    [[nodiscard]] WallTime wallNow() const override { return WallTime{now_.time_since_epoch()}; }

    /// Runs everything that is due within `span` and leaves the clock at its end.
    void runFor(Duration span) { runTo(now_ + span); }
    /// The same up to `end`, that moment included, which must not have passed.
    void runTo(Time end);
    /// When there is something to do next, if ever.
    [[nodiscard]] std::optional<Time> nextTime() const;
    /// Runs until `condition` holds, at most for `span`; tells whether it holds.
    bool runUntil(const std::function<bool()>& condition, Duration span);
    /// Runs what is due now, without moving the clock.
    void settle() { runFor(Duration{0}); }

private:
    /// One step: posted tasks, or due timers, or a jump of the clock; false when nothing is left up to `end`.
    bool step(Time end);
    /// Not zero, so that a zero in a time field means "never set".
    Time now_{std::chrono::seconds{1000}};
};

}  // namespace Runtime
