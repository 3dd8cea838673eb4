/// Fair turns of the ports: what may be received and transmitted in one turn of the loop, and who stands in
/// line for the next.  Nobody can have more of the loop than a turn's share while others wait.
#pragma once

#include "Runtime/Loop.h"
#include "Switch/IntfId.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <set>

namespace Mrp {

/// What an indication costs in a port's turn, beyond what its handler tells; other events cost 1.
inline constexpr unsigned indicationCost = 16;
/// What may be received in one turn of the loop, and of that by one port while others wait: some
/// milliseconds of work.
inline constexpr unsigned turnBudget = 128 * indicationCost;
inline constexpr unsigned portBudget = turnBudget / 8;

class Turns {
public:
    /// `serve` lets a port receive for about that much; it may stand in line again.
    Turns(Runtime::Loop& loop, std::function<void(IntfId, unsigned most)> serve);

    /// While paused nobody receives or transmits; the line stays.
    void pausedIs(bool paused);
    [[nodiscard]] bool paused() const { return paused_; }

    /// What may still be received in this turn.
    [[nodiscard]] unsigned mayReceive() const { return paused_ ? 0 : receive_; }
    void received(unsigned cost);
    /// Attributes may still be looked at for transmissions in this turn.
    [[nodiscard]] bool mayTransmit() const { return !paused_ && transmit_ > 0; }
    void transmitted(std::size_t attributes);
    /// At the end of the line, unless it stands there already.
    void standInLine(IntfId intf);

private:
    void begin();
    void serve();

    std::function<void(IntfId, unsigned)> serve_;
    unsigned receive_;
    std::size_t transmit_;
    bool paused_ = false;
    std::deque<IntfId> line_;
    std::set<IntfId> inLine_;
    Runtime::Timer timer_;  ///< armed while a budget is touched or ports stand in line
};

}  // namespace Mrp
