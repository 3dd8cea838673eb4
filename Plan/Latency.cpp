#include "Plan/Latency.h"

#include <algorithm>

namespace Plan {

using Msrp::SrClassId;

Runtime::Duration worstLatency(const LatencyPort& port, SrClassId srClass, const LatencyFrames& frames) {
    constexpr double around = 20;  // preamble and gap
    const bool a = srClass == SrClassId::SrClassA;
    const double rate = port.megabitsPerSecond * 1e6;
    const double share = std::max(a ? port.shareA : port.shareB, 1e-9);
    const double interval = a ? 125e-6 : 250e-6;
    const auto seconds = [rate](double octets) { return octets * 8 / rate; };
    // Frames of others that have just begun: one below the classes; before class B all that class A may send
    // meanwhile, and one frame of it.
    double interfering = seconds(frames.bestEffort + around);
    if (!a) interfering = interfering / std::max(1 - port.shareA, 1e-9) + seconds(frames.classA + around);
    // Every other stream of the class at once, spread by the shaper.
    const double others = std::max(0.0, share * interval - seconds(frames.own + around)) / share;
    return port.processing + port.wire + Runtime::secondsDuration(interfering + others + seconds(frames.own));
}

Runtime::Duration latencyTarget(SrClassId srClass) {
    return std::chrono::milliseconds{srClass == SrClassId::SrClassA ? 2 : 50};
}

}  // namespace Plan
