/// What it costs to have a stream in a store as well: to reserve it with its records mirrored and without, up
/// to the octets that are sent, and to read all of them into the records of another supervisor.
#include "Store/Follower.h"
#include "Store/Mirror.h"
#include "Store/Protocol.h"
#include "bench/Processor.h"
#include "bench/StreamSwitch.h"
#include "bench/Streams.h"
#include "tests/store/MemoryStore.h"

#include <functional>
#include <malloc.h>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bench::Spacing;
using Bench::StreamSwitch;

const std::vector<std::string> mirrored{"msrp/status", "msrp/waiting", "bridging/input/config/msrp",
                                        "qos/input/config/msrp"};
constexpr std::size_t batch = 65'536;

/// As a supervisor tells a store of its records: after the turn in which they changed.
class Teller {
public:
    /// `take` gets each batch.
    Teller(StreamSwitch& device, std::function<void(const std::vector<std::string>&)> take)
        : loop_{device.loop()},
          take_{std::move(take)},
          mirror_{device.bridge().database(), mirrored, {"Msrp::IntfStatus/rxCounters"}, [this] {
                      loop_.post([this] { tell(); });
                  }} {
        tell();
    }
    std::size_t batches = 0;
    std::size_t records = 0;

private:
    void tell() {
        while (mirror_.waiting()) {
            const Store::Mirror::Batch told = mirror_.take(batch);
            ++batches;
            records += told.records;
            take_(told.words);
        }
    }

    Runtime::Loop& loop_;
    std::function<void(const std::vector<std::string>&)> take_;
    Store::Mirror mirror_;
};

void reserveAll(StreamSwitch& device, std::size_t streams) {
    device.hear(0, Bench::join(Msrp::typeTalkerAdvertise, 0, streams, Spacing::scattered));
    device.settle();
    device.hear(1, Bench::join(Msrp::typeListener, 0, streams, Spacing::scattered));
    device.settle();
}

void mirrorReserve(benchmark::State& state, bool told) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{2};
        std::optional<Teller> teller;
        std::size_t octets = 0;
        if (told)
            teller.emplace(device,
                           [&octets](const auto& words) { octets += Store::commandText(words).size(); });
        const double seconds = Bench::secondsOf([&] { reserveAll(device, streams); });
        if (device.bridge().logged("MSRP_BW_ALLOC_SUCCESS") != streams)
            return state.SkipWithError("not every stream was reserved");
        state.SetIterationTime(seconds);
        if (!told) continue;
        const auto each = static_cast<double>(streams);
        state.counters["octets/stream"] = static_cast<double>(octets) / each;
        state.counters["records/stream"] = static_cast<double>(teller->records) / each;
        state.counters["streams/batch"] = each / static_cast<double>(teller->batches);
    }
    state.counters["perStream"] = Bench::timeEach(streams);
}

void mirrorRead(benchmark::State& state) {
    const auto streams = Bench::many(static_cast<std::size_t>(state.range(0)));
    MemoryStore memory;
    StreamSwitch device{2};
    const Teller teller{device, [&memory](const auto& words) { memory.take(words); }};
    reserveAll(device, streams);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch other{2};
        std::vector<std::pair<Store::Reply, std::function<void(const Store::Reply&)>>> answers;
        Store::Follower follower{other.bridge().database(),
                                 Store::Names{"switch"},
                                 Store::Follower::Writer::agent,
                                 {mirrored.begin(), mirrored.end()},
                                 0.0,
                                 [&](const auto& words, auto answer) {
                                     answers.emplace_back(memory.answer(words), std::move(answer));
                                 },
                                 [&](const std::string& line) { state.SkipWithError(line.c_str()); }};
        double seconds = Bench::secondsOf([&] { follower.read([] {}); });
        while (!answers.empty()) {
            const auto some = std::exchange(answers, {});
            // What the server would do does not count.
            for (const auto& answer : some) seconds += Bench::secondsOf([&] { answer.second(answer.first); });
        }
        if (other.bridge().status->registeredStreams().size() != streams)
            return state.SkipWithError("not every stream was read");
        state.SetIterationTime(seconds);
    }
    state.counters["perStream"] = Bench::timeEach(streams);
}

void mirrorMemory(benchmark::State& state) {
    const auto streams = Bench::many(16'000);
    for ([[maybe_unused]] auto turn : state) {
        StreamSwitch device{2};
        reserveAll(device, streams);
        const auto used = [] { return static_cast<double>(mallinfo2().uordblks); };
        const double before = used();
        const Teller teller{device, [](const auto&) {}};
        state.counters["octets/stream"] = (used() - before) / static_cast<double>(streams);
    }
}

void manyRecords(benchmark::internal::Benchmark* bench) {
    bench->Arg(1000)
        ->Arg(16'000)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond)
        ->Iterations(Bench::isShort() ? 1 : 3);
}

BENCHMARK_CAPTURE(mirrorReserve, without, false)->Apply(manyRecords);
BENCHMARK_CAPTURE(mirrorReserve, with, true)->Apply(manyRecords);
BENCHMARK(mirrorRead)->Apply(manyRecords);
BENCHMARK(mirrorMemory)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
