/// For how long a LeaveAll round of a large switch keeps everybody else waiting: 48 ports, 16,000 streams, a
/// listener for each of them behind every port, and a LeaveAll on all ports at once, which all peers answer.
#include "bench/LiveSwitch.h"

namespace {

using namespace Bench;

void leaveAllStretch(benchmark::State& state) {
    const auto portCount = static_cast<std::size_t>(state.range(0));
    const auto streams = many(static_cast<std::size_t>(state.range(1)));
    LiveSwitch device{portCount};
    device.reserve(streams, portCount);
    const auto last = [&] { return device.bridge.stream(streamId(streams - 1, Spacing::scattered)); };
    const std::string reserved = last();
    const auto leavesBefore = device.leaves;
    for ([[maybe_unused]] auto turn : state) {
        Heartbeat heartbeat{device.loop};
        device.ports.answers = 0;
        const Runtime::Time begun = device.loop.now();
        for (const std::string& name : device.names)
            device.bridge.agent().mrpSm()->periodicSm().transmitAllLeaveAll(IntfId{name});
        device.loop.runUntil([&] { return device.ports.answers >= portCount && device.ports.quiet(); }, 60s);
        state.counters["answeredMs"] = milliseconds(device.loop.now() - begun);
        device.wait(2s);
        state.counters["latestTimerMs"] = milliseconds(heartbeat.latest);
        state.counters["longestWaitMs"] = milliseconds(heartbeat.longestWait);
    }
    if (device.leaves != leavesBefore || last() != reserved)
        state.SkipWithError("the round has cost a reservation");
}

BENCHMARK(leaveAllStretch)
    ->Args({8, 1000})
    ->Args({48, 16'000})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
