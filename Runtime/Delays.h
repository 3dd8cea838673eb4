/// How long things take, counted by their length: so little work that every turn of a loop can afford it.
#pragma once

#include "Runtime/Time.h"
#include "State/Schema.h"
#include "State/Value.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Runtime {

class Delays {
public:
    static constexpr std::array<Duration, 9> bounds{
        std::chrono::microseconds{100}, std::chrono::microseconds{300}, std::chrono::milliseconds{1},
        std::chrono::milliseconds{3},   std::chrono::milliseconds{10},  std::chrono::milliseconds{30},
        std::chrono::milliseconds{100}, std::chrono::milliseconds{300}, std::chrono::seconds{1}};

    void add(Duration delay) {
        std::size_t place = 0;
        while (place < bounds.size() && delay > bounds[place]) ++place;
        ++counts_[place];
        sum_ += delay;
        if (delay > longest_) longest_ = delay;
    }

    /// How many, of which so many within each of the bounds; together and the longest in seconds:
    /// { "count": 3, "sum": 0.02, "longest": 0.015, "within": { "0.0001": 1, "0.0003": 1, ... } }
    [[nodiscard]] State::Value value() const;
    /// What that value is.
    static State::Schema schema();

private:
    std::array<std::uint64_t, bounds.size() + 1> counts_{};  ///< the last one is of what is above the bounds
    Duration sum_{};
    Duration longest_{};
};

/// Of one loop.
struct LoopDelays {
    Delays late;   ///< how long after its time the first due timer fired
    Delays turns;  ///< how long everybody had to wait for the next turn
};

}  // namespace Runtime
