/// Attribute values to measure with, and the PDUs that declare them.
#pragma once

#include "Mrp/Decoder.h"
#include "Mrp/Events.h"
#include "Sim/Ports.h"
#include "bench/Run.h"

#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

/// Consecutive values share one vector; scattered ones need a vector each.
enum class Spacing : std::uint8_t { consecutive, scattered };

/// The stream that `value` numbers so.
std::uint64_t streamId(std::size_t number, Spacing spacing);

/// Domains that differ from each other.
inline constexpr std::size_t domains = 251;

/// The value of that number, from 0 (of a Domain below `domains`), of an MSRP attribute type.  Talkers are
/// class A streams of small frames in VLAN 2, Listeners are Ready, and the first two consecutive Domains are
/// those of class B and class A as a bridge has them by default.
Mrp::AttributeValue value(std::uint8_t type, std::size_t number, Spacing spacing);

/// Says that of the values from `first` on, in as few PDUs as it needs.
std::vector<Sim::Pdu> events(std::uint8_t type, Mrp::Event event, std::size_t first, std::size_t count,
                             Spacing spacing);
inline std::vector<Sim::Pdu> join(std::uint8_t type, std::size_t first, std::size_t count, Spacing spacing) {
    return events(type, Mrp::Event::JoinMt, first, count, spacing);
}
/// The least frames in which so many values of a type can be said once, by the arithmetic of the format.
std::size_t leastFrames(std::uint8_t type, std::size_t count, Spacing spacing);

/// Shown as the time that one of `count` took in each iteration.
inline benchmark::Counter timeEach(std::size_t count) {
    return {static_cast<double>(count),
            benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert};
}

}  // namespace Bench
