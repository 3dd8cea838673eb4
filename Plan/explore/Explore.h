/// Every order in which things may happen to a small network.
///
/// From a network at rest every burst of acts is tried: acts one behind the other, at once or some
/// milliseconds apart; for the short ones also with each frame that they make the devices say lost, or late.
/// Then it comes to rest and is judged (Oracle.h), and from where it has come to it goes on, burst after
/// burst. A rest that has been met before is not gone on from again: what was tried from there holds for this
/// one.
///
/// What that assumes: two networks at rest of the same `stateOf` go on alike, whatever time their LeaveAll
/// and join timers have left, whatever numbers their random generators draw next, and whatever their counters
/// say. From each rest that is met first it is tried by itself that two LeaveAll rounds change nothing.
#pragma once

#include "Plan/explore/Story.h"

#include <cstdint>
#include <functional>
#include <string>

namespace Plan {

struct ExploreOptions {
    unsigned depth = 2;         ///< bursts, with a rest behind each
    unsigned burst = 2;         ///< acts in one of them
    unsigned mishaps = 1;       ///< acts in the longest burst for which frames are lost and late
    unsigned copies = 2;        ///< processes that share the work; the counts do not depend on it
    Runtime::Duration limit{};  ///< of the time that it may take; 0: none
};

struct Explored {
    std::uint64_t tried = 0;   ///< bursts that were done, from a rest that was new
    std::uint64_t rests = 0;   ///< different ones
    std::uint64_t pruned = 0;  ///< bursts that led to a rest that was known
    double orders = 0;         ///< orders of so many bursts at most that this decides
    bool complete = true;      ///< the limit did not end it
    std::string fault{};       ///< what is wrong, in words; empty for nothing
    Story story{};             ///< that leads to it, the shortest that could be had
};

/// Judges a network that has come to rest, and against which `faultsOf` has nothing to say; may be empty.
using Wrong = std::function<std::string(const World&)>;

/// Does a story up to the first fault, and tells that.
std::string judge(World& world, const Story& story, const Wrong& wrong = {});
std::string judge(const Network& network, const Story& story, const Wrong& wrong = {});

Explored explore(const Network& network, const ExploreOptions& options, const Wrong& wrong = {});

/// What is left of a story that fails when all is left out that it does not need to fail, and how that one
/// fails; each try is made in a copy of this process.
Story shortestFailing(const Network& network, const Story& story, const Wrong& wrong, std::string& fault);

/// The story and then what is wrong, found or not.
std::string exploredText(const Network& network, const Explored& explored);

}  // namespace Plan
