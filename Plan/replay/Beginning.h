/// What has to be known of captured traffic before it can be replayed.
#pragma once

#include "Plan/replay/Traffic.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Plan {

struct Beginning {
    /// From when on the frames tell all that is declared, since the first one; empty: never.  A capture that
    /// begins in the middle says nothing of what was declared before it, until a LeaveAll makes everybody
    /// declare everything again; that it does is seen when somebody has registered, or withdraws, what nobody
    /// has declared in it.
    std::optional<Runtime::Duration> known{Runtime::Duration{}};
    std::set<std::uint16_t> vlans{};  ///< of the talkers
    std::vector<std::string> notes{};
};

/// `answer` is the time that it takes until all have answered a LeaveAll.
Beginning beginningOf(const Traffic& traffic, Runtime::Duration answer);

}  // namespace Plan
