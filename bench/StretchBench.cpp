/// For how long a LeaveAll round of a large switch keeps everybody else waiting: 48 ports, 16,000 streams, a
/// listener for each of them behind every port, and a LeaveAll on all ports at once, which all peers answer.
#include "Linux/EpollLoop.h"
#include "Mrp/PduWriter.h"
#include "Msrp/types/Attributes.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"
#include "bench/Streams.h"

#include <algorithm>
#include <deque>
#include <sys/eventfd.h>

namespace {

using Bench::Spacing;
using namespace std::chrono_literals;

/// Ports whose peers answer each LeaveAll with what they declared, as fast as a socket is read.
class AnsweringPorts : public Mrp::PacketPortProvider {
public:
    explicit AnsweringPorts(Runtime::FdLoop& loop) : loop_{loop} {}

    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Receiver receiver) override {
        Peer& peer = peers_.try_emplace(intf, *this).first->second;
        peer.receiver = std::move(receiver);
        return std::make_unique<Port>(peer);
    }
    /// The peer declares that from now on.
    void declare(IntfId intf, const std::vector<Sim::Pdu>& pdus) {
        Peer& peer = peers_.at(intf);
        peer.declared.insert(peer.declared.end(), pdus.begin(), pdus.end());
        peer.watch = {};
        peer.say(pdus);
    }
    [[nodiscard]] bool quiet() const {
        return std::ranges::all_of(peers_, [](const auto& p) { return p.second.toSay.empty(); });
    }
    std::size_t answers = 0;

private:
    /// Its frames come in through a descriptor, as those of a socket would.
    struct Peer {
        explicit Peer(AnsweringPorts& all) : owner{all}, event{eventfd(1, EFD_NONBLOCK)} {}
        void say(const std::vector<Sim::Pdu>& pdus) {
            toSay.insert(toSay.end(), pdus.begin(), pdus.end());
            watch = owner.loop_.watch(event.get(), Runtime::FdLoop::Ready::readable, [this] { speak(); });
        }
        void speak() {
            constexpr int framesAtOnce = 16;  // as many as a port reads of its socket in one turn
            for (int i = 0; i < framesAtOnce && !toSay.empty(); ++i) {
                receiver(toSay.front());
                toSay.pop_front();
            }
            if (toSay.empty()) watch = {};
        }
        void hear(std::span<const std::uint8_t> pdu) {
            if (pdu.size() < 6 || (pdu[5] & 0xE0) != 0x20) return;
            ++owner.answers;
            watch = {};
            say(declared);
        }
        AnsweringPorts& owner;
        Receiver receiver;
        std::vector<Sim::Pdu> declared;
        std::deque<Sim::Pdu> toSay;
        Linux::FileDescriptor event;
        Runtime::FdLoop::Watch watch;
    };
    struct Port : Mrp::PacketPort {
        explicit Port(Peer& farEnd) : peer{farEnd} {}
        bool send(std::span<const std::uint8_t> pdu) override {
            peer.hear(pdu);
            return true;
        }
        Peer& peer;
    };
    Runtime::FdLoop& loop_;
    std::map<IntfId, Peer> peers_;
};

double milliseconds(Runtime::Duration span) { return 1e3 * Runtime::seconds(Runtime::Time{span}); }

/// How late a timer comes, and how long a readable descriptor waits.
class Heartbeat {
public:
    explicit Heartbeat(Linux::EpollLoop& loop)
        : loop_{loop}, timer_{loop, [this] { beat(); }}, event_{eventfd(1, EFD_NONBLOCK)} {
        watch_ = loop.watch(event_.get(), Runtime::FdLoop::Ready::readable, [this] {
            const Runtime::Time now = loop_.now();
            if (read_ != Runtime::Time{}) longestWait = std::max(longestWait, now - read_);
            read_ = now;
        });
        timer_.armIn(1ms);
    }
    Runtime::Duration latest{};
    Runtime::Duration longestWait{};

private:
    void beat() {
        latest = std::max(latest, loop_.now() - timer_.when());
        timer_.armIn(1ms);
    }
    Linux::EpollLoop& loop_;
    Runtime::Timer timer_;
    Linux::FileDescriptor event_;
    Runtime::FdLoop::Watch watch_;
    Runtime::Time read_{};
};

void leaveAllStretch(benchmark::State& state) {
    const auto portCount = static_cast<std::size_t>(state.range(0));
    const auto streams = static_cast<std::size_t>(state.range(1));
    const auto talkers = Bench::join(Msrp::typeTalkerAdvertise, 0, streams, Spacing::scattered);
    const auto listeners = Bench::join(Msrp::typeListener, 0, streams, Spacing::scattered);
    Linux::EpollLoop loop;
    AnsweringPorts ports{loop};
    std::vector<std::string> names;
    for (std::size_t port = 1; port <= portCount; ++port) names.push_back('p' + std::to_string(port));
    Sim::Bridge bridge{loop, names, 1, &ports};
    bridge.mrpConfig->maxAttributesPerTypeIs(1'000'000);
    bridge.mrpConfig->leaveAllTimeIs(600'000);
    for (const std::string& name : names) bridge.speedIs(name, Interface::Speed::speed400Gbps);
    bridge.start();
    const auto settle = [&](std::chrono::seconds atMost) {
        loop.runUntil([&] { return ports.quiet(); }, atMost);
        loop.runUntil([] { return false; }, 400ms);
        bridge.logClear();
    };
    settle(5s);
    Sim::Pdu domains;
    {
        Mrp::PduWriter writer{Msrp::application(), false};
        for (const Sim::Say& say : Sim::domains()) {
            Mrp::AttributeValue value;
            std::ranges::copy(say.value, value.octets.begin());
            writer.add(static_cast<std::uint8_t>(say.type - 1), say.event, value);
        }
        const auto octets = writer.finish();
        domains.assign(octets.begin(), octets.end());
    }
    for (const std::string& name : names) ports.declare(IntfId{name}, {domains});
    settle(5s);
    ports.declare(IntfId{names.front()}, talkers);
    settle(60s);
    for (const std::string& name : names) {
        if (name == names.front()) continue;
        ports.declare(IntfId{name}, listeners);
        settle(60s);
    }
    const std::string reserved = bridge.stream(Bench::streamId(streams - 1, Spacing::scattered));
    const auto leavesBefore = bridge.logged("_LV");
    for ([[maybe_unused]] auto turn : state) {
        Heartbeat heartbeat{loop};
        ports.answers = 0;
        const Runtime::Time begun = loop.now();
        for (const std::string& name : names)
            bridge.agent().mrpSm()->periodicSm().transmitAllLeaveAll(IntfId{name});
        loop.runUntil([&] { return ports.answers >= portCount && ports.quiet(); }, 60s);
        state.counters["answeredMs"] = milliseconds(loop.now() - begun);
        loop.runUntil([] { return false; }, 2s);
        state.counters["latestTimerMs"] = milliseconds(heartbeat.latest);
        state.counters["longestWaitMs"] = milliseconds(heartbeat.longestWait);
    }
    if (bridge.logged("_LV") != leavesBefore ||
        bridge.stream(Bench::streamId(streams - 1, Spacing::scattered)) != reserved)
        state.SkipWithError("the round has cost a reservation");
}

BENCHMARK(leaveAllStretch)
    ->Args({8, 1000})
    ->Args({48, 16'000})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
