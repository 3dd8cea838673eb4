/// What a stream keeps of the heap: on the port of its talker, on each further port, and for a listener.
#include "Msrp/types/Attributes.h"
#include "bench/StreamSwitch.h"
#include "bench/Streams.h"

#include <malloc.h>

namespace {

using Bench::Spacing;

/// The log that the simulated bridge keeps is no part of the agent.
double heapInUse(Bench::StreamSwitch& device) {
    device.bridge().logClear();
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd) -
           static_cast<double>(device.bridge().log().capacity() * sizeof(std::string));
}

struct Use {
    double talker;    ///< octets for each stream
    double listener;  ///< more octets for each, with a listener on one port
};

Use use(std::size_t ports) {
    const std::size_t streams = Bench::many(16'000);
    const auto talkers = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, Spacing::scattered);
    const auto listeners = Bench::join(Msrp::typeListener, 0, streams, Spacing::scattered);
    Bench::StreamSwitch device{ports};
    const double before = heapInUse(device);
    device.hear(0, talkers);
    device.settle();
    const double advertised = heapInUse(device);
    device.hear(1, listeners);
    device.settle();
    const double reserved = heapInUse(device);
    return {(advertised - before) / static_cast<double>(streams),
            (reserved - advertised) / static_cast<double>(streams)};
}

void memory(benchmark::State& state) {
    constexpr std::size_t few = 2;
    constexpr std::size_t many = 8;
    for ([[maybe_unused]] auto turn : state) {
        const Use small = use(few);
        const Use large = use(many);
        const double perPort = (large.talker - small.talker) / (many - few);
        state.counters["octets/stream"] = small.talker - perPort * (few - 1);
        state.counters["octets/furtherPort"] = perPort;
        state.counters["octets/listener"] = large.listener;
        state.counters["octets/stream@8ports"] = large.talker;
    }
}

BENCHMARK(memory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
