/// The parameters of the credit-based shaper (IEEE 802.1Q 34.6.1 and Annex L).
#pragma once

#include <cstdint>

namespace Linux {

/// What the SR classes have reserved on a port, in kbit/s with all that surrounds a frame on the wire; 0:
/// nothing.
struct ClassRates {
    std::uint32_t a = 0;
    std::uint32_t b = 0;
    bool operator==(const ClassRates&) const = default;
};

/// Octets that a frame of the standard's largest size takes on the wire: 1500 and the frame's own 22 with a
/// tag, then 20 of preamble and gap.
inline constexpr std::uint32_t largestFrame = 1542;

/// Of these, what is around the octets that a frame with a tag carries.
inline constexpr std::uint32_t aroundFrame = 42;
inline constexpr std::uint32_t smallestFrame = 84;

/// The largest frames that come, in octets as they are on the wire.
struct LargestFrames {
    std::uint32_t a = largestFrame;  ///< of streams of class A
    std::uint32_t any = largestFrame;
    bool operator==(const LargestFrames&) const = default;
};

/// One class's shaper.  Slopes in kbit/s, credits in octets.
struct Credits {
    std::int32_t idleSlope = 0;
    std::int32_t sendSlope = 0;
    std::int32_t hiCredit = 0;
    std::int32_t loCredit = 0;
    bool operator==(const Credits&) const = default;
};

/// For a port of `portRate` kbit/s, which is more than both classes have reserved and below 2^31.
Credits classACredits(std::uint64_t portRate, ClassRates reserved, const LargestFrames& frames = {});
Credits classBCredits(std::uint64_t portRate, ClassRates reserved, const LargestFrames& frames = {});

/// Octets that a class of `rate` kbit/s gathers in a millisecond.  So late may a timer of the kernel be; a
/// shaper in software that keeps less than that loses bandwidth.
constexpr std::uint32_t lateTimer(std::uint32_t rate) { return rate / 8; }

}  // namespace Linux
