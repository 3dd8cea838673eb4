/// What a stream costs the whole agent: registered on one port of eight and declared on the other seven,
/// asked for by a listener, one more beside the many that are there.  The cost of each should not depend on
/// how many there are.  Times are of the processor, so that other processes do not count.
#include "Msrp/types/Attributes.h"
#include "bench/Processor.h"
#include "bench/StreamSwitch.h"
#include "bench/Streams.h"

#include <optional>

namespace {

using Bench::secondsOf;
using Bench::Spacing;
using Bench::StreamSwitch;

constexpr std::size_t allPorts = 8;
constexpr std::size_t talkerPort = 0;
constexpr std::size_t listenerPort = 1;

bool advertised(const StreamSwitch& device, std::size_t count) {
    for (std::size_t port = talkerPort + 1; port < allPorts; ++port) {
        if (device.declared(port, Msrp::typeTalkerAdvertise) != count) return false;
    }
    return true;
}
bool listened(const StreamSwitch& device, std::size_t count) {
    return device.declared(talkerPort, Msrp::typeListener) == count;
}

/// Seconds from the moment when the PDUs come in until all is declared that follows from them; nothing when
/// that is not so in due time.
std::optional<double> secondsUntil(StreamSwitch& device, std::size_t port, const std::vector<Sim::Pdu>& pdus,
                                   bool (*done)(const StreamSwitch&, std::size_t), std::size_t count) {
    device.forgetSent();
    double seconds = secondsOf([&] { device.hear(port, pdus); });
    for (int slices = 0; slices < 100; ++slices) {
        seconds += secondsOf([&] { device.run(std::chrono::milliseconds{20}); });
        if (done(device, count)) return seconds;
    }
    return std::nullopt;
}

void count(benchmark::State& state, std::size_t streams) {
    state.counters["perStream"] = Bench::timeEach(streams);
    state.counters["streams/s"] = {static_cast<double>(streams),
                                   benchmark::Counter::kIsIterationInvariantRate};
}

void propagate(benchmark::State& state, Spacing spacing, bool history = false) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{allPorts, history};
        const auto seconds = secondsUntil(device, talkerPort, pdus, advertised, streams);
        if (!seconds) return state.SkipWithError("not every stream was declared on every port");
        state.SetIterationTime(*seconds);
    }
    count(state, streams);
}

/// The rest of a stream's beginning: each port repeats its declaration, the status is published.
void settle(benchmark::State& state, Spacing spacing) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{allPorts};
        (void)secondsUntil(device, talkerPort, pdus, advertised, streams);
        state.SetIterationTime(secondsOf([&] { device.settle(); }));
        if (device.bridge().status->registeredStreams().size() != streams)
            state.SkipWithError("not every stream was published");
    }
    count(state, streams);
}

void reserve(benchmark::State& state, Spacing spacing, bool history = false) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    const auto talkers = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    const auto listeners = Bench::join(Msrp::typeListener, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{allPorts, history};
        device.hear(talkerPort, talkers);
        device.settle();
        const auto seconds = secondsUntil(device, listenerPort, listeners, listened, streams);
        if (!seconds || device.bridge().logged("MSRP_BW_ALLOC_SUCCESS") != streams)
            return state.SkipWithError("not every stream was reserved");
        state.SetIterationTime(*seconds);
    }
    count(state, streams);
}

/// One stream at a time, while so many are there.
void oneMore(benchmark::State& state, Spacing spacing) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    StreamSwitch device{allPorts};
    device.hear(talkerPort, Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing));
    device.settle();
    std::size_t next = streams;
    for ([[maybe_unused]] auto turn : state) {
        const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, next++, 1, spacing);
        const auto seconds = secondsUntil(device, talkerPort, pdus, advertised, 1);
        if (!seconds) return state.SkipWithError("the stream was not declared on every port");
        state.SetIterationTime(*seconds);
        device.settle();
    }
}

void manyStreams(benchmark::internal::Benchmark* bench) {
    bench->Arg(1000)
        ->Arg(16'000)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(Bench::isShort() ? 1 : 5);
}
void single(benchmark::internal::Benchmark* bench) {
    bench->Arg(1000)
        ->Arg(16'000)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(Bench::isShort() ? 3 : 300);
}

BENCHMARK_CAPTURE(propagate, consecutive, Spacing::consecutive)->Apply(manyStreams);
BENCHMARK_CAPTURE(propagate, scattered, Spacing::scattered)->Apply(manyStreams);
BENCHMARK_CAPTURE(settle, consecutive, Spacing::consecutive)->Apply(manyStreams);
BENCHMARK_CAPTURE(settle, scattered, Spacing::scattered)->Apply(manyStreams);
BENCHMARK_CAPTURE(reserve, consecutive, Spacing::consecutive)->Apply(manyStreams);
BENCHMARK_CAPTURE(reserve, scattered, Spacing::scattered)->Apply(manyStreams);
BENCHMARK_CAPTURE(propagate, remembered, Spacing::scattered, true)->Apply(manyStreams);
BENCHMARK_CAPTURE(reserve, remembered, Spacing::scattered, true)->Apply(manyStreams);
BENCHMARK_CAPTURE(oneMore, scattered, Spacing::scattered)->Apply(single);

}  // namespace
