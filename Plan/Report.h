/// What a run came to, for people and for programs.
#pragma once

#include "Plan/Outcome.h"
#include "State/Value.h"

#include <string>
#include <vector>

namespace Plan {

/// "1.204 s", "243.5 us"
std::string spanText(Runtime::Duration span);
/// By numbers from "1" on.
State::Value numbered(std::vector<State::Value> values);
/// Null for an empty text.
State::Value textOrNull(const std::string& text);
/// Of seconds.
inline State::Value spanValue(Runtime::Duration span) {
    return State::Value{std::chrono::duration<double>(span).count()};
}

char classLetter(Msrp::SrClassId srClass);
/// What a bridge reserves for it on a port.
std::uint64_t streamKbps(const Stream& stream);
/// "125 of 128 reservations of 64 streams, settled after 600.004 ms; the protocol said 119 frames (11142
/// octets)"
std::string summaryText(const Network& network, const Outcome& outcome);

std::string outcomeText(const Network& network, const Outcome& outcome);
/// Of a shape that does not depend on what is in the network.
State::Value outcomeValue(const Network& network, const Outcome& outcome);

}  // namespace Plan
