/// Work that may take longer than one turn of the loop may: it is done in pieces, and whoever else has
/// something to do gets at the loop between them.
#pragma once

#include "Runtime/Loop.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>

namespace Runtime {

class Chores {
public:
    /// Jobs of one lane are done one after the other; lanes take turns.
    using Lane = std::uint64_t;
    /// Does a piece of the work, of about `units`, which it lowers by what it did; true when all is done.
    using Job = std::function<bool(unsigned& units)>;

    /// `unitsPerTurn` is what all jobs together may do in one turn of the loop; `idle` is told of each lane
    /// that has run out of jobs.  The loop must outlive the chores.
    Chores(Loop& loop, unsigned unitsPerTurn, std::function<void(Lane)> idle);
    Chores(const Chores&) = delete;
    Chores& operator=(const Chores&) = delete;

    /// Begins at once, as far as this turn allows; what is added by a job follows it in the same turn or
    /// later.
    void add(Lane lane, Job job);
    [[nodiscard]] bool busy(Lane lane) const { return lanes_.contains(lane); }
    [[nodiscard]] bool busy() const { return !lanes_.empty(); }
    /// For a job that cannot be done in pieces: it took so many units of the turn besides those it was given.
    void spend(std::size_t units) { left_ -= static_cast<unsigned>(std::min<std::size_t>(left_, units)); }
    /// Does all that is left, however long it takes; not to be called by a job.
    void finish();
    /// Drops all that is left; nobody is told.
    void clear();

private:
    void run();
    /// One piece of the lane whose turn it is.
    void piece();

    const unsigned unitsPerTurn_;
    const std::function<void(Lane)> idle_;
    std::map<Lane, std::deque<Job>> lanes_;
    std::deque<Lane> order_;  ///< each lane once, the next one first
    unsigned left_;           ///< of this turn
    bool running_ = false;
    unsigned cleared_ = 0;  ///< how often, for a job that is dropped while it runs
    Timer turn_;            ///< armed while the turn's units are touched or work is left
};

}  // namespace Runtime
