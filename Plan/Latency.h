/// The longest that a frame of a stream may take from a device until the next one has it whole
/// (IEEE 802.1BA 6.6; the credits of IEEE 802.1Q Annex L are what its terms rest on).
///
/// It holds as long as no class sends more than its share, everything below the classes interferes with one
/// frame only, nothing but MRP and gPTP goes before class A, and talkers space their frames evenly.
#pragma once

#include "Msrp/types/Enums.h"
#include "Runtime/Time.h"

#include <cstdint>

namespace Plan {

/// A port that the stream leaves by.
struct LatencyPort {
    std::uint32_t megabitsPerSecond = 1000;
    double shareA = 0.75;  ///< of the link's rate
    double shareB = 0;
    Runtime::Duration processing{};  ///< of the device before it
    Runtime::Duration wire{};        ///< behind it
};

/// Octets of a frame's data with header, tag and check sequence; 20 more for preamble and gap are added here.
struct LatencyFrames {
    std::uint32_t own = 0;
    std::uint32_t bestEffort = 1522;
    std::uint32_t classA = 1522;  ///< the largest that class B may have to wait for
};

Runtime::Duration worstLatency(const LatencyPort& port, Msrp::SrClassId srClass, const LatencyFrames& frames);

/// What a path of seven hops is to keep: 2 ms for class A, 50 ms for class B (802.1BA 6.5, 802.1Q 35.2.2.8).
Runtime::Duration latencyTarget(Msrp::SrClassId srClass);

}  // namespace Plan
