#include "Mrp/Turns.h"

#include <algorithm>
#include <utility>

namespace Mrp {

namespace {

/// Attributes whose states are looked at for transmissions in one turn; the last port to get its turn may
/// take more.
constexpr std::size_t turnTransmissions = 4096;

}  // namespace

Turns::Turns(Runtime::Loop& loop, std::function<void(IntfId, unsigned)> serve)
    : serve_{std::move(serve)}, receive_{turnBudget}, transmit_{turnTransmissions}, timer_{loop, [this] {
                                                                                               this->serve();
                                                                                           }} {}

void Turns::begin() {
    if (!timer_.armed()) timer_.armIn(Runtime::Duration{0});
}

void Turns::pausedIs(bool paused) {
    if (std::exchange(paused_, paused) && !paused) timer_.armIn(Runtime::Duration{0});
}

void Turns::received(unsigned cost) {
    receive_ -= std::min(receive_, cost);
    begin();
}

void Turns::transmitted(std::size_t attributes) {
    transmit_ -= std::min(transmit_, attributes);
    begin();
}

void Turns::standInLine(IntfId intf) {
    if (inLine_.insert(intf).second) line_.push_back(intf);
    begin();
}

void Turns::serve() {
    receive_ = turnBudget;
    transmit_ = turnTransmissions;
    while (mayReceive() > 0 && !line_.empty()) {
        const IntfId intf = line_.front();
        line_.pop_front();
        inLine_.erase(intf);
        serve_(intf, std::min(receive_, portBudget));
    }
    if (!paused_ && !line_.empty()) begin();
}

}  // namespace Mrp
