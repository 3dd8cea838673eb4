/// How long a new Talker Advertise takes through the whole agent on real ports, from frame in to frame out,
/// beside a bare forwarder that only copies the frame from one packet socket to another.  Both run at the
/// same time on cables of their own and get their frames in turn, so that they see the same machine.
#include "Linux/kernel/EpollLoop.h"
#include "Linux/links/LinkAgent.h"
#include "Linux/ports/PacketPorts.h"
#include "Mrp/Decoder.h"
#include "Mrp/Records.h"
#include "Msrp/Database.h"
#include "Msrp/MsrpAgent.h"
#include "Msrp/types/Attributes.h"
#include "Switch/TopologyAgent.h"
#include "bench/Streams.h"
#include "bench/TestNetwork.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <net/if.h>
#include <optional>
#include <sched.h>
#include <sys/socket.h>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Bench::Spacing;
using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC

const std::size_t rounds = Bench::isShort() ? 10 : 400;
/// A port of the agent may speak three times in 15 ms, and speaks twice of each stream.
constexpr auto pause = 10ms;

// The cables, each with an end of the measuring side's and one of the measured one's.
constexpr const char* forwarderIn = "fin";
constexpr const char* forwarderOut = "fout";
constexpr const char* portsIn = "pin";
constexpr const char* portsOut = "pout";
constexpr const char* agentIn = "ain";
constexpr const char* agentOut = "aout";
std::string farEnd(const std::string& cable) { return cable + '0'; }
std::string nearEnd(const std::string& cable) { return cable + '1'; }

/// The measuring side has one processor and the measured ones share another, before all ordinary processes,
/// as far as that is permitted: otherwise it is the scheduler's whims that are measured.
class Alone {
public:
    explicit Alone(int processor) : policy_{sched_getscheduler(0)} {
        sched_getaffinity(0, sizeof allowed_, &allowed_);
        sched_getparam(0, &priority_);
        cpu_set_t one{};
        CPU_SET(processor, &one);
        sched_setaffinity(0, sizeof one, &one);
        const sched_param first{.sched_priority = 1};
        sched_setscheduler(0, SCHED_FIFO, &first);
    }
    Alone(const Alone&) = delete;
    Alone& operator=(const Alone&) = delete;
    ~Alone() {
        sched_setscheduler(0, policy_, &priority_);
        sched_setaffinity(0, sizeof allowed_, &allowed_);
    }

private:
    int policy_;
    sched_param priority_{};
    cpu_set_t allowed_{};
};
constexpr int measuringProcessor = 0;
constexpr int measuredProcessor = 1;

void forward() {
    const Alone alone{measuredProcessor};
    const Bench::RawSocket in{nearEnd(forwarderIn), Linux::PacketProtocol{}.etherType};
    const Bench::RawSocket out{nearEnd(forwarderOut), Linux::PacketProtocol{}.etherType};
    std::array<std::uint8_t, 2048> frame{};
    for (;;) {
        const ssize_t length = recv(in.get(), frame.data(), frame.size(), 0);
        if (length > 0) send(out.get(), frame.data(), static_cast<std::size_t>(length), 0);
    }
}

void forwardByPorts() {
    const Alone alone{measuredProcessor};
    Linux::EpollLoop loop;
    Linux::PacketPorts ports{loop};
    const IntfId inIntf{nearEnd(portsIn)};
    const IntfId outIntf{nearEnd(portsOut)};
    const auto out = ports.open(outIntf, [](std::span<const std::uint8_t>) {});
    const auto in = ports.open(inIntf, [&out](std::span<const std::uint8_t> pdu) { out->send(pdu); });
    for (const IntfId intf : {inIntf, outIntf})
        ports.interfaceIs(intf,
                          {if_nametoindex(intf.name().c_str()), EthAddr::fromNumber(0x02'00'00'00'00'0B)});
    loop.run();
}

void runAgent() {
    const Alone alone{measuredProcessor};
    Linux::EpollLoop loop;
    State::Database database;
    Msrp::populate(database);
    const auto mrp = database.entityIs<Mrp::MrpConfig>("mrp/config");
    mrp->joinTimeIs(10);
    mrp->leaveAllTimeIs(600'000);  // the measuring side answers none
    const auto config = database.entityIs<Msrp::Config>("msrp/config");
    const auto bridging = database.entityIs<Bridging::Config>("bridging/config");
    const auto status = database.entityIs<Interface::AllEthPhyIntfStatusDir>("interface/status/eth/phy/all");
    Linux::PacketPorts ports{loop};
    Linux::DeviceTable devices{loop};
    Linux::LinkAgent links{
        devices, status, database.entityIs<Interface::EthIntfStatusDir>("interface/status/eth/intf"),
        [&ports](IntfId intf, const Linux::Place& place) { ports.interfaceIs(intf, place); }};
    if (!devices.start().empty()) return;
    bridging->bridgeMacIs(EthAddr::fromNumber(0x02'00'00'00'00'01));
    for (const char* cable : {agentIn, agentOut}) {
        const IntfId intf{nearEnd(cable)};
        links.configuredSpeedIs(intf, Interface::Speed::speed1Gbps);
        links.followIs(intf);
        bridging->vlanConfigIs(VlanId{2})->intfIs(intf)->taggedIs(true);
        config->intfEnableIs(intf, true);
    }
    const Bridging::TopologyAgent topology{
        bridging, database.entityIs<Stp::Status>("stp/status"), status,
        database.entityIs<Bridging::Topology::Config>("bridging/topology/config")};
    Runtime::SystemLog systemLog;
    systemLog.sinkIs(
        [](const Runtime::LogEvent&, std::string_view, const std::string&) {});  // made, and not written
    const Runtime::Trace trace;
    Runtime::RingLog ringLog;
    Msrp::Agent agent{{.database = database,
                       .loop = loop,
                       .systemLog = systemLog,
                       .trace = trace,
                       .ringLog = ringLog,
                       .ringLogFile = false},
                      ports};
    agent.start();
    loop.run();
}

constexpr std::array<std::uint8_t, 14> header{0x01, 0x80, 0xC2, 0, 0,    0x0E, 0x02,
                                              0,    0,    0,    0, 0x0A, 0x22, 0xEA};

std::vector<std::uint8_t> frameOf(const Sim::Pdu& pdu) {
    std::vector<std::uint8_t> frame(std::max<std::size_t>(header.size() + pdu.size(), 60));
    const auto at = std::copy(header.begin(), header.end(), frame.begin());
    std::copy(pdu.begin(), pdu.end(), at);
    return frame;
}

/// The measuring side's ends of the cables to one of those that are measured.
class Probe {
public:
    Probe(const char* in, const char* out)
        : in_{farEnd(in), Linux::PacketProtocol{}.etherType},
          out_{farEnd(out), Linux::PacketProtocol{}.etherType} {}

    /// Declares the values on both cables.
    void declare(std::uint8_t type, std::size_t first, std::size_t count) const {
        for (const Sim::Pdu& pdu : Bench::join(type, first, count, Spacing::consecutive)) {
            for (const Bench::RawSocket* end : {&in_, &out_}) sendOn(*end, frameOf(pdu));
        }
    }
    /// Sends the advertise of a new stream; the time until one of it comes out.
    std::optional<Clock::duration> shoot(std::size_t number) {
        const auto frame =
            frameOf(Bench::join(Msrp::typeTalkerAdvertise, number, 1, Spacing::scattered).front());
        while (receive()) {
        }
        const auto start = Clock::now();
        sendOn(in_, frame);
        for (;;) {
            const bool heard = receive();
            const auto now = Clock::now();
            if (heard && advertises(number)) return now - start;
            if (now - start > 100ms) return std::nullopt;
        }
    }

private:
    static void sendOn(const Bench::RawSocket& end, const std::vector<std::uint8_t>& frame) {
        send(end.get(), frame.data(), frame.size(), 0);
    }
    bool receive() {
        length_ = recv(out_.get(), frame_.data(), frame_.size(), MSG_DONTWAIT);
        return length_ > std::ssize(header);
    }
    bool advertises(std::size_t number) {
        Mrp::decode(std::span{frame_}.first(static_cast<std::size_t>(length_)).subspan(header.size()),
                    Msrp::application(), decoded_);
        const auto wanted = Bench::value(Msrp::typeTalkerAdvertise, number, Spacing::scattered);
        const auto& events = decoded_.events;
        return std::any_of(events.begin(), events.end(), [&](const Mrp::DecodedEvent& event) {
            return event.typeIndex == Msrp::typeTalkerAdvertise - 1 &&
                   std::equal(wanted.octets.begin(), wanted.octets.begin() + 8, event.value.octets.begin());
        });
    }

    Bench::RawSocket in_;
    Bench::RawSocket out_;
    std::array<std::uint8_t, 2048> frame_{};
    ssize_t length_ = 0;
    Mrp::DecodedPdu decoded_;
};

double medianMicroseconds(std::vector<Clock::duration>& times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return std::chrono::duration<double, std::micro>{*middle}.count();
}

void measure(benchmark::State& state) {
    struct Measured {
        const char* counter;
        Probe probe;
        std::vector<Clock::duration> times;
    };
    std::array<Measured, 3> all{{{"forwarder_us", {forwarderIn, forwarderOut}, {}},
                                 {"ports_us", {portsIn, portsOut}, {}},
                                 {"agent_us", {agentIn, agentOut}, {}}}};
    const Bench::Child forwarding{forward};
    const Bench::Child forwardingByPorts{forwardByPorts};
    const Bench::Child reserving{runAgent};
    const Alone alone{measuringProcessor};
    std::this_thread::sleep_for(2s);  // until the LeaveAll with which ports start is over
    all.back().probe.declare(Msrp::typeDomain, 0, 2);
    std::this_thread::sleep_for(500ms);

    for (std::size_t number = 0; number < rounds; ++number) {
        for (Measured& one : all) {
            if (const auto time = one.probe.shoot(number)) one.times.push_back(*time);
            std::this_thread::sleep_for(pause);
        }
    }
    for (Measured& one : all) {
        if (one.times.size() < rounds * 9 / 10) return state.SkipWithError("too many frames were lost");
        state.counters[one.counter] = medianMicroseconds(one.times);
    }
    state.counters["ratio"] = medianMicroseconds(all.back().times) / medianMicroseconds(all.front().times);
}

void latency(benchmark::State& state) {
    const Bench::TestNetwork network;
    if (!network.made()) return state.SkipWithError("skipped: no permission to make a network namespace");
    for (const char* cable : {forwarderIn, forwarderOut, portsIn, portsOut, agentIn, agentOut}) {
        if (!Bench::TestNetwork::cable(farEnd(cable), nearEnd(cable)))
            return state.SkipWithError("cannot make a veth pair");
    }
    for ([[maybe_unused]] auto turn : state) measure(state);
}

BENCHMARK(latency)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
