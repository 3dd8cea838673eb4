/// A network's life with what happens to it, and what each thing does to every stream.
#pragma once

#include "Plan/Outcome.h"
#include "Plan/Script.h"

#include <string>
#include <vector>

namespace Plan {

/// What became of one reservation.
struct Effect {
    std::size_t stream = 0;
    std::size_t station = 0;
    bool before = false;
    bool after = false;
    Runtime::Duration without{};  ///< how long it was not reserved, of one that is again; to 10 ms
    std::string reason{};         ///< of one that is not reserved after it
};

/// From one event to the next one, or until all is quiet.
struct Chapter {
    Runtime::Duration at{};
    std::string text{};
    bool quiet = false;          ///< else the next event, or the end, came before
    Runtime::Duration lasted{};  ///< until the last change
    std::vector<Effect> effects{};
};

struct Course {
    std::vector<Chapter> chapters{};  ///< the first one is how it comes up
    Outcome end{};
};

/// Until it has been quiet for so long after the last event, at most up to `end`.
Course live(World& world, const std::vector<Event>& events, Runtime::Duration quiet, Runtime::Duration end);

std::string courseText(const Network& network, const Course& course);
/// An array, in the order of time, as numbered members.
State::Value courseValue(const Network& network, const Course& course);

}  // namespace Plan
