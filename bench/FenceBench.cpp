/// What a frame of one of a thousand streams costs on its way through the kernel's bridge: without the
/// fence's program, with it, and where streams are measured or policed as well.
#include "Linux/fence/FenceAgent.h"
#include "Linux/kernel/EpollLoop.h"
#include "bench/Run.h"
#include "bench/TestNetwork.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
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

void throughTheBridge(benchmark::State& state) {
    const auto kind = static_cast<std::size_t>(state.range(0));
    state.SetLabel(fenceKinds[kind]);
    const Bench::TestNetwork network;
    // Without groups its frames go to all ports, which are one.
    const auto ip = [](const char* arguments) { return std::system(arguments) == 0; };
    if (!network.made() || !Bench::TestNetwork::cable("q1", "p1") || !Bench::TestNetwork::cable("q2", "p2") ||
        !ip("ip link add br0 up type bridge mcast_snooping 0") || !ip("ip link set p1 master br0") ||
        !ip("ip link set p2 master br0"))
        return state.SkipWithError("needs root");

    Linux::EpollLoop loop;
    Linux::DeviceTable devices{loop};
    Linux::NetlinkRequests kernel;
    Linux::FenceAgent::Records records{.config = nullptr,
                                       .domain = nullptr,
                                       .groups = std::make_shared<Bridging::Input::Config>(),
                                       .vlans = std::make_shared<Bridging::VlanRequests>(),
                                       .capabilities = std::make_shared<Linux::CapabilityStatus>(),
                                       .status = std::make_shared<Linux::FenceStatus>(),
                                       .streams = nullptr,
                                       .traffic = std::make_shared<Linux::TrafficStatus>()};
    const auto config = std::make_shared<Linux::Config>();
    config->bridgeIs("br0");
    config->fenceIs(kind == 0 ? Linux::Fencing::none : Linux::Fencing::ports);
    if (kind > 1) config->streamsIs(kind == 2 ? Linux::Metering::measure : Linux::Metering::police);
    const auto domain = std::make_shared<Switch::Domain>();
    domain->portIs(IntfId{"p1"})->coreIs(Cos{3}, true);
    const auto streams = std::make_shared<Switch::Streams>();
    for (std::size_t stream = 0; stream < streamCount; ++stream) {
        const auto limits = streams->streamIs(stream);
        limits->macDaIs(addressOf(stream));
        limits->vlanIdIs(2);
        limits->priorityIs(3);
        limits->maxFrameSizeIs(222);
        limits->kbpsIs(100'000'000);
        limits->talkerIntfIs(IntfId{"p1"});
    }
    records.config = config;
    records.domain = domain;
    records.streams = streams;
    if (!kernel.open().empty() || !devices.start().empty()) return state.SkipWithError("no netlink");
    Linux::FenceAgent* waiting = nullptr;
    Linux::FenceAgent agent{loop, devices, kernel, records, [&] {
                                loop.post([&] {
                                    if (waiting != nullptr) waiting->apply();
                                });
                            }};
    waiting = &agent;
    if (!agent.start().empty()) return state.SkipWithError("no fence");
    loop.runUntil([&] { return records.traffic->stream().size() == (kind > 1 ? streamCount : 0); }, 5s);

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
    waiting = nullptr;
    agent.stop();
}
BENCHMARK(throughTheBridge)->Name("Fence/frame")->DenseRange(0, 3)->UseRealTime();

}  // namespace
