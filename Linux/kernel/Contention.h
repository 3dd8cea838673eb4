/// Keeps two agents that undo each other's work from doing so for ever.
#pragma once

#include "Runtime/Time.h"

#include <chrono>
#include <map>
#include <vector>

namespace Linux {

/// How often somebody else changed one thing of ours.
class Contention {
public:
    static constexpr std::size_t limit = 3;
    static constexpr std::chrono::minutes span{1};

    /// Somebody else changed it.  True when that makes it one that is left alone.
    bool changed(Runtime::Time now);
    /// Whether it changed `limit` times within a minute, the last time less than a minute ago.
    [[nodiscard]] bool leftAlone(Runtime::Time now) const;
    /// Whether all that is too long ago to matter.
    [[nodiscard]] bool over(Runtime::Time now) const;

private:
    std::vector<Runtime::Time> times_;  ///< at most `limit`, the latest
};

/// The same for many things.
template <class Thing>
class Contentions {
public:
    bool changed(const Thing& thing, Runtime::Time now) { return things_[thing].changed(now); }
    [[nodiscard]] bool leftAlone(const Thing& thing, Runtime::Time now) const {
        const auto held = things_.find(thing);
        return held != things_.end() && held->second.leftAlone(now);
    }
    /// Drops what is too old to matter.
    void review(Runtime::Time now) {
        std::erase_if(things_, [&](const auto& entry) { return entry.second.over(now); });
    }
    void clear() { things_.clear(); }

private:
    std::map<Thing, Contention> things_;
};

}  // namespace Linux
