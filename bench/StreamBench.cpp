/// What a stream costs the whole agent: registered on one port of eight and declared on the other seven,
/// asked for by a listener, one more beside the many that are there.  The cost of each should not depend on
/// how many there are.  Times are of the processor, so that other processes do not count.
#include "Msrp/types/Attributes.h"
#include "bench/Processor.h"
#include "bench/StreamSwitch.h"
#include "bench/Streams.h"

namespace {

using Bench::secondsOf;
using Bench::Spacing;
using Bench::StreamSwitch;

constexpr std::size_t portCount = 8;
constexpr std::size_t talkerPort = 0;
constexpr std::size_t listenerPort = 1;

bool advertise(StreamSwitch& device, const std::vector<Sim::Pdu>& pdus, std::size_t count) {
    const auto before = device.joined();
    device.hear(talkerPort, pdus);
    return device.untilJoined(talkerPort + 1, portCount, before, count);
}

bool listen(StreamSwitch& device, const std::vector<Sim::Pdu>& pdus, std::size_t count) {
    const auto before = device.joined();
    device.hear(listenerPort, pdus);
    return device.untilJoined(talkerPort, talkerPort + 1, before, count);
}

void count(benchmark::State& state, std::size_t streams) {
    state.counters["perStream"] = Bench::timeEach(streams);
    state.counters["streams/s"] = {static_cast<double>(streams),
                                   benchmark::Counter::kIsIterationInvariantRate};
}

void propagate(benchmark::State& state, Spacing spacing) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{portCount};
        bool done = false;
        state.SetIterationTime(secondsOf([&] { done = advertise(device, pdus, streams); }));
        if (!done) state.SkipWithError("not every stream was declared on every port");
    }
    count(state, streams);
}

/// The rest of a stream's beginning: each port repeats its declaration, the status is published.
void settle(benchmark::State& state, Spacing spacing) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{portCount};
        advertise(device, pdus, streams);
        state.SetIterationTime(secondsOf([&] { device.settle(); }));
        if (device.bridge().status->registeredStreams().size() != streams)
            state.SkipWithError("not every stream was published");
    }
    count(state, streams);
}

void reserve(benchmark::State& state, Spacing spacing) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    const auto talkers = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing);
    const auto listeners = Bench::join(Msrp::typeListener, 0, streams, spacing);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{portCount};
        advertise(device, talkers, streams);
        device.settle();
        bool done = false;
        state.SetIterationTime(secondsOf([&] { done = listen(device, listeners, streams); }));
        if (!done || device.bridge().logged("MSRP_BW_ALLOC_SUCCESS") != streams)
            state.SkipWithError("not every stream was reserved");
    }
    count(state, streams);
}

/// One stream at a time, while so many are there.
void oneMore(benchmark::State& state, Spacing spacing) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    StreamSwitch device{portCount};
    advertise(device, Bench::join(Msrp::typeTalkerAdvertise, 0, streams, spacing), streams);
    device.settle();
    std::size_t next = streams;
    for ([[maybe_unused]] auto turn : state) {
        const auto pdus = Bench::join(Msrp::typeTalkerAdvertise, next++, 1, spacing);
        bool done = false;
        state.SetIterationTime(secondsOf([&] { done = advertise(device, pdus, 1); }));
        if (!done) state.SkipWithError("the stream was not declared on every port");
        device.settle();
    }
}

void many(benchmark::internal::Benchmark* bench) {
    bench->Arg(1000)->Arg(16'000)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
}
void single(benchmark::internal::Benchmark* bench) {
    bench->Arg(1000)->Arg(16'000)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(300);
}

BENCHMARK_CAPTURE(propagate, consecutive, Spacing::consecutive)->Apply(many);
BENCHMARK_CAPTURE(propagate, scattered, Spacing::scattered)->Apply(many);
BENCHMARK_CAPTURE(settle, consecutive, Spacing::consecutive)->Apply(many);
BENCHMARK_CAPTURE(settle, scattered, Spacing::scattered)->Apply(many);
BENCHMARK_CAPTURE(reserve, consecutive, Spacing::consecutive)->Apply(many);
BENCHMARK_CAPTURE(reserve, scattered, Spacing::scattered)->Apply(many);
BENCHMARK_CAPTURE(oneMore, scattered, Spacing::scattered)->Apply(single);

}  // namespace
