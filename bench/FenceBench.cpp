/// What a frame of one of a thousand streams costs on its way through the kernel's bridge: without the
/// fence's program, with it, and where streams are measured or policed as well.
#include "Linux/fence/FenceAgent.h"
#include "Linux/kernel/EpollLoop.h"
#include "bench/Run.h"
#include "bench/TestNetwork.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdlib>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr std::size_t streamCount = 1000;
constexpr std::size_t framesAtOnce = 50;
constexpr std::array<const char*, 4> fenceKinds{"bridge alone", "fence", "measure", "police"};

EthAddr addressOf(std::size_t stream) { return EthAddr::fromNumber(0x91e0f0000000 + stream); }

std::array<std::uint8_t, 240> frameOf(std::size_t stream) {
    std::array<std::uint8_t, 240> frame{};
    const auto destination = addressOf(stream).octets();
    std::copy(destination.begin(), destination.end(), frame.begin());
    // From a station, in VLAN 2 with priority 3.
    constexpr std::array<std::uint8_t, 12> rest{2, 0, 0, 0, 0, 9, 0x81, 0, 0x60, 2, 0x22, 0xF0};
    std::copy(rest.begin(), rest.end(), frame.begin() + 6);
    return frame;
}

/// Sends one frame of each stream; false when one is not taken.
class Talkers {
public:
    explicit Talkers(const std::string& interface) : socket_{interface, 0x22F0} {
        constexpr int past = 1;
        setsockopt(socket_.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &past, sizeof past);
        for (std::size_t stream = 0; stream < streamCount; ++stream) {
            frames_[stream] = frameOf(stream);
            parts_[stream] = {frames_[stream].data(), frames_[stream].size()};
            messages_[stream].msg_hdr.msg_iov = &parts_[stream];
            messages_[stream].msg_hdr.msg_iovlen = 1;
        }
    }
    bool send() {
        for (std::size_t at = 0; at < streamCount; at += framesAtOnce) {
            if (sendmmsg(socket_.get(), &messages_[at], framesAtOnce, 0) != static_cast<int>(framesAtOnce))
                return false;
        }
        return true;
    }

private:
    Bench::RawSocket socket_;
    std::vector<std::array<std::uint8_t, 240>> frames_{streamCount};
    std::vector<iovec> parts_{streamCount};
    std::vector<mmsghdr> messages_{streamCount};
};

/// Of all that has come since the last call; the socket keeps none of it.
unsigned heard(const Bench::RawSocket& socket) {
    tpacket_stats counted{};
    socklen_t size = sizeof counted;
    getsockopt(socket.get(), SOL_PACKET, PACKET_STATISTICS, &counted, &size);
    return counted.tp_packets;
}

/// A bridge with the ports p1 and p2, whose far ends are q1 and q2, and the agent at work on it.
class FencedBridge {
public:
    explicit FencedBridge(std::size_t kind) {
        // Without groups its frames go to all ports, which are one.
        const auto ip = [](const char* arguments) { return std::system(arguments) == 0; };
        const bool made = network_.made() && Bench::TestNetwork::cable("q1", "p1") &&
                          Bench::TestNetwork::cable("q2", "p2") &&
                          ip("ip link add br0 up type bridge mcast_snooping 0") &&
                          ip("ip link set p1 master br0") && ip("ip link set p2 master br0");
        config_->bridgeIs("br0");
        config_->fenceIs(kind == 0 ? Linux::Fencing::none : Linux::Fencing::ports);
        if (kind > 1) config_->streamsIs(kind == 2 ? Linux::Metering::measure : Linux::Metering::police);
        coreIs(true);
        for (std::size_t stream = 0; stream < streamCount; ++stream) {
            const auto limits = streams_->streamIs(stream);
            limits->macDaIs(addressOf(stream));
            limits->vlanIdIs(2);
            limits->priorityIs(3);
            limits->maxFrameSizeIs(222);
            limits->kbpsIs(100'000'000);
            limits->talkerIntfIs(IntfId{"p1"});
        }
        ready_ =
            made && kernel_.open().empty() && devices_.start().empty() && agent_.start().empty() &&
            loop_.runUntil([&] { return traffic_->stream().size() == (kind > 1 ? streamCount : 0); }, 5s);
    }
    [[nodiscard]] bool ready() const { return ready_; }
    void coreIs(bool core) { domain_->portIs(IntfId{"p1"})->coreIs(Cos{3}, core); }
    [[nodiscard]] bool agrees() { return agent_.audit(false).empty(); }
    /// Until the kernel has what was asked for.
    void settle() {
        loop_.runUntil([&] { return !woken_; }, 5s);
    }

private:
    Bench::TestNetwork network_;
    Linux::EpollLoop loop_;
    Linux::DeviceTable devices_{loop_};
    Linux::NetlinkRequests kernel_;
    std::shared_ptr<Linux::Config> config_ = std::make_shared<Linux::Config>();
    std::shared_ptr<Switch::Domain> domain_ = std::make_shared<Switch::Domain>();
    std::shared_ptr<Switch::Streams> streams_ = std::make_shared<Switch::Streams>();
    std::shared_ptr<Linux::TrafficStatus> traffic_ = std::make_shared<Linux::TrafficStatus>();
    bool woken_ = false;
    Linux::FenceAgent agent_{
        loop_,
        devices_,
        kernel_,
        {config_, domain_, std::make_shared<Bridging::Input::Config>(),
         std::make_shared<Bridging::VlanRequests>(), std::make_shared<Linux::CapabilityStatus>(),
         std::make_shared<Linux::FenceStatus>(), streams_, traffic_},
        [this] {
            if (std::exchange(woken_, true)) return;
            loop_.post([this] {
                woken_ = false;
                agent_.apply();
            });
        }};
    bool ready_ = false;
};

void throughTheBridge(benchmark::State& state) {
    const auto kind = static_cast<std::size_t>(state.range(0));
    state.SetLabel(fenceKinds[kind]);
    const FencedBridge bridge{kind};
    if (!bridge.ready()) return state.SkipWithError("no bridge with a fence");

    Talkers talkers{"q1"};
    const Bench::RawSocket arrivals{"q2", 0x0003};
    constexpr int least = 1;
    setsockopt(arrivals.get(), SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    talkers.send();
    heard(arrivals);
    std::size_t rounds = 0;
    for (auto _ : state) {
        if (!talkers.send()) return state.SkipWithError("a frame was not taken");
        ++rounds;
    }
    const unsigned arrived = heard(arrivals);
    if (arrived < rounds * streamCount) state.SkipWithError("frames were lost");
    state.SetItemsProcessed(static_cast<std::int64_t>(rounds * streamCount));
}
BENCHMARK(throughTheBridge)->Name("Fence/frame")->DenseRange(0, 3)->UseRealTime();

/// From a new state of a class on a port until the kernel goes by it.
void changeOfAClass(benchmark::State& state) {
    FencedBridge bridge{1};
    if (!bridge.ready()) return state.SkipWithError("no bridge with a fence");
    bool core = true;
    double longest = 0.0;
    for (auto _ : state) {
        const auto begin = std::chrono::steady_clock::now();
        bridge.coreIs(core = !core);
        bridge.settle();
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        longest = std::max(longest, took.count());
    }
    bridge.coreIs(false);
    bridge.settle();
    if (!bridge.agrees()) state.SkipWithError("the kernel goes by something else");
    state.counters["longestMs"] = longest;
}
BENCHMARK(changeOfAClass)
    ->Name("Fence/change")
    ->Iterations(static_cast<benchmark::IterationCount>(Bench::many(1000)))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
