/// For how long those who read the switch keep it waiting, and each other: 16,000 streams on 8 ports,
/// watchers of all of them, clients that ask for much and fetch none of it, and a person with a short
/// question.
#include "Control/Client.h"
#include "Control/Server.h"
#include "Linux/kernel/EpollLoop.h"
#include "Msrp/types/Attributes.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"
#include "bench/Processor.h"
#include "bench/Streams.h"
#include "bench/TestNetwork.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <list>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>

namespace {

using Bench::Spacing;
using namespace std::chrono_literals;

constexpr std::size_t ports = 8;

/// What the children tell.
struct Figures {
    std::atomic<double> slowestAnswer{0};  ///< ms
    std::atomic<std::uint64_t> answers{0};
    std::atomic<std::uint64_t> octetsWatched{0};
};

void ask(const Runtime::FileDescriptor& fd, const std::string& request) {
    if (::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) std::abort();
}

/// Five watchers that read all, sixty clients that read nothing.
void crowd(const std::string& path, Figures& figures) {
    std::string problem;
    std::vector<Runtime::FileDescriptor> greedy;
    for (int i = 0; i < 58; ++i) {
        greedy.push_back(Control::connectTo(path, problem));
        for (int n = 0; n < 100; ++n) ask(greedy.back(), "{\"op\":\"get\",\"path\":\"mrp/attributes\"}\n");
    }
    std::vector<Runtime::FileDescriptor> watchers;
    std::vector<pollfd> waiting;
    for (int i = 0; i < 5; ++i) {
        watchers.push_back(Control::connectTo(path, problem));
        ask(watchers.back(), "{\"op\":\"watch\",\"path\":\"msrp/status\"}\n");
        waiting.push_back({watchers.back().get(), POLLIN, 0});
    }
    std::vector<char> piece(1U << 20);
    for (;;) {
        ::poll(waiting.data(), waiting.size(), -1);
        for (const pollfd& fd : waiting) {
            const ssize_t count = ::recv(fd.fd, piece.data(), piece.size(), MSG_DONTWAIT);
            if (count > 0) figures.octetsWatched += static_cast<std::uint64_t>(count);
        }
    }
}

void person(const std::string& path, Figures& figures) {
    for (;;) {
        const auto begun = std::chrono::steady_clock::now();
        Control::Client client;
        State::Value reply;
        const State::Value question = State::Object{{"op", "get"}, {"path", "msrp/status/intfStatus"}};
        if (client.connect(path).empty() && client.send(question).empty() &&
            client.receive(reply, 60).empty() && reply.member("value") != nullptr)
            ++figures.answers;
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begun;
        figures.slowestAnswer = std::max(figures.slowestAnswer.load(), took.count());
        std::this_thread::sleep_for(100ms);
    }
}

double residentMegabytes() {
    std::ifstream statm{"/proc/self/statm"};
    double pages = 0;
    statm >> pages >> pages;
    return pages * 4096 / 1e6;
}

void readers(benchmark::State& state) {
    const auto streams = static_cast<std::size_t>(state.range(0));
    Linux::EpollLoop loop;
    std::vector<std::string> names;
    for (std::size_t port = 1; port <= ports; ++port) names.push_back('p' + std::to_string(port));
    Sim::Bridge bridge{loop, names};
    bridge.mrpConfig->maxAttributesPerTypeIs(1'000'000);
    bridge.mrpConfig->leaveAllTimeIs(600'000);
    for (const std::string& name : names) bridge.speedIs(name, Interface::Speed::speed400Gbps);
    bridge.start();
    const auto settle = [&](Runtime::Duration span) {
        loop.runUntil([] { return false; }, span);
        bridge.logClear();
    };
    settle(500ms);
    for (const std::string& name : names) {
        Sim::Peer{bridge, name}.say(Sim::domains());
        bridge.ports().cableIs(IntfId{name}, [](const Sim::Pdu&) {});
    }
    settle(500ms);
    for (const std::string& name : names) {
        const std::uint8_t type = name == "p1" ? Msrp::typeTalkerAdvertise : Msrp::typeListener;
        for (const Sim::Pdu& pdu : Bench::join(type, 0, streams, Spacing::scattered)) {
            bridge.ports().deliver(IntfId{name}, pdu);
            settle(0ms);
        }
    }
    settle(3s);

    std::string pattern = (std::filesystem::temp_directory_path() / "readers-XXXXXX").string();
    const std::string directory = ::mkdtemp(pattern.data());
    const std::string path = directory + "/control";
    Control::RecordAccess records{bridge.database(), {}};
    Control::FrameSource frames{[](std::string_view) { return false; }, [](bool) {}};
    const Control::Commands commands;
    auto* figures =
        new (::mmap(nullptr, sizeof(Figures), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
            Figures;
    {
        Control::Server server{loop, {records, frames, commands}};
        if (!server.start(path).empty()) return state.SkipWithError("no socket");
        // A stream changes every 10 ms, so everything watched is always another one.
        double time = 0;
        Runtime::Timer change{loop, [&] {
                                  const auto id = Bench::streamId(0, Spacing::scattered);
                                  bridge.status->registeredStreams(id)->statusTimeIs(IntfId{"p2"}, ++time);
                                  change.armIn(10ms);
                              }};
        change.armIn(10ms);
        Runtime::Duration latest{};
        double stretch = 0;  // of the processor between two beats: what others did to us is not in it
        double before = 0;
        Runtime::Timer beat{loop, [&] {
                                latest = std::max(latest, loop.now() - beat.when());
                                const double used = Bench::processorSeconds();
                                if (before > 0) stretch = std::max(stretch, used - before);
                                before = used;
                                beat.armIn(1ms);
                            }};
        for ([[maybe_unused]] auto turn : state) {
            const double memory = residentMegabytes();
            const Bench::Child watching{[&] { crowd(path, *figures); }};
            const Bench::Child asking{[&] { person(path, *figures); }};
            beat.armIn(1ms);
            loop.runUntil([] { return false; }, Bench::lasting(10s));
            state.counters["memoryMB"] = residentMegabytes() - memory;
            state.counters["latestTimerMs"] = 1e3 * Runtime::seconds(Runtime::Time{latest});
            state.counters["longestStretchMs"] = 1e3 * stretch;
            state.counters["slowestAnswerMs"] = figures->slowestAnswer.load();
            state.counters["answers"] = static_cast<double>(figures->answers);
            state.counters["watchedMB"] = static_cast<double>(figures->octetsWatched) / 1e6;
        }
    }
    ::munmap(figures, sizeof(Figures));
    std::filesystem::remove_all(directory);
}

BENCHMARK(readers)->Arg(1000)->Arg(16'000)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
