#include "Linux/queues/Credits.h"

namespace Linux {

namespace {

using U64 = std::uint64_t;

constexpr U64 dividedUp(U64 dividend, U64 divisor) { return (dividend + divisor - 1) / divisor; }

/// The sum of two quotients, rounded up once.  Taken apart so that nothing grows above 64 bits.
constexpr U64 sumDividedUp(U64 dividend1, U64 divisor1, U64 dividend2, U64 divisor2) {
    const U64 whole = dividend1 / divisor1 + dividend2 / divisor2;
    const U64 rest = dividend1 % divisor1 * divisor2 + dividend2 % divisor2 * divisor1;
    return whole + dividedUp(rest, divisor1 * divisor2);
}

// What a frame costs is never cut short: who sends larger ones than he has reserved pays for them.
Credits credits(U64 portRate, U64 idleSlope, U64 hiCredit, U64 largest) {
    const U64 loCredit = dividedUp(largest * (portRate - idleSlope), portRate);
    return {static_cast<std::int32_t>(idleSlope), -static_cast<std::int32_t>(portRate - idleSlope),
            static_cast<std::int32_t>(hiCredit), -static_cast<std::int32_t>(loCredit)};
}

}  // namespace

Credits classACredits(U64 portRate, ClassRates reserved, const LargestFrames& frames) {
    const U64 hiCredit = dividedUp(U64{frames.any} * reserved.a, portRate);
    return credits(portRate, reserved.a, hiCredit, frames.any);
}

Credits classBCredits(U64 portRate, ClassRates reserved, const LargestFrames& frames) {
    // Class B waits for one frame of best effort, while class A spends what it gathered during that frame,
    // and for one frame of class A.
    const U64 frameA = reserved.a != 0 ? frames.a : 0;
    const U64 hiCredit =
        sumDividedUp(U64{reserved.b} * frames.any, portRate - reserved.a, reserved.b * frameA, portRate);
    return credits(portRate, reserved.b, hiCredit, frames.any);
}

}  // namespace Linux
