/// Captures of a bridge: read as far as they are whole, and laid beside what an agent says in its place.
#include "Control/Json.h"
#include "Plan/replay/ReplayReport.h"
#include "Sim/MrpPeer.h"
#include "tests/plan/Captured.h"

#include <gtest/gtest.h>

namespace Plan {
namespace {

using std::chrono::seconds;

/// Stream 1 goes from p1 to p2 and for a while to p3; stream 2 finds no bandwidth at p2; stream 3 is refused.
std::vector<Heard> life() {
    Runtime::VirtualLoop loop;
    Tap tap{loop};
    Sim::Bridge bridge{loop, {"p1", "p2", "p3"}, 7, &tap};
    tap.inner(bridge.ports());
    bridge.speedIs("p2", Interface::Speed::speed100Mbps);
    bridge.start();
    Sim::MrpPeer talker{loop, bridge, "p1", 11};
    Sim::MrpPeer amp{loop, bridge, "p2", 12};
    Sim::MrpPeer desk{loop, bridge, "p3", 13};
    for (Sim::MrpPeer* peer : {&talker, &amp, &desk}) {
        for (const Sim::Say& domain : Sim::domains()) peer->declare(domain);
    }
    loop.runFor(seconds{1});
    const auto ready = [](std::uint64_t id) { return Sim::listener(id, Msrp::ListenerState::Ready); };
    talker.declare(Sim::advertise({.id = 1}));
    talker.declare(Sim::advertise({.id = 2, .macDa = 0x91'e0'f0'00'00'02, .maxFrameSize = 1400}));
    amp.declare(ready(1));
    desk.declare(ready(1));
    amp.declare(ready(2));
    talker.declare(Sim::advertise({.id = 3, .macDa = 0x02'00'00'00'00'03}));  // wrong: no group
    loop.runFor(seconds{4});
    desk.withdraw(ready(1));
    loop.runFor(seconds{30});
    talker.withdraw(Sim::advertise({.id = 1}));
    loop.runFor(seconds{20});
    return tap.frames;
}

State::Value config() {
    return Control::parseJson(R"({"bridging/config": {"bridgeMac": "02:00:00:00:00:01",
        "vlanConfig": {"2": {"intf": {"p1": {"tagged": true}, "p2": {"tagged": true}, "p3": {"tagged": true}}}}},
        "msrp/config": {"intfEnable": {"p1": true, "p2": true, "p3": true}},
        "interface/status/eth/phy/all": {"intfStatus": {"p1": {"speedEnum": "1G"}, "p2": {"speedEnum": "100M"},
        "p3": {"speedEnum": "1G"}}}})")
        .value;
}

Traffic trafficOf(const Pcapng::Octets& file, std::string& problem,
                  std::uint64_t bridge = 0x02'00'00'00'00'01) {
    TrafficReader reader{{}};
    reader.read("life", file);
    return reader.traffic({EthAddr::fromNumber(bridge)}, problem);
}

/// Without the table, and how many frames there were.
std::string told(const std::vector<Heard>& frames, const State::Value& configured = config()) {
    const Pcapng::Octets file = pcapngOf(frames, false);
    std::string problem;
    const Traffic traffic = trafficOf(file, problem);
    const std::string text = replayText(traffic, replay(traffic, {configured}, {}));
    return problem + text.substr(text.find("\n\n") + 2);
}

/// Changes what the bridge says on a port, event by event; false leaves it out.
std::vector<Heard> changed(std::vector<Heard> frames, const std::string& port,
                           const std::function<bool(Sim::Say&)>& change) {
    for (Heard& heard : frames) {
        if (!heard.sent || heard.port != port) continue;
        Mrp::DecodedPdu pdu;
        Mrp::decode(heard.pdu, Msrp::application(), pdu);
        std::vector<Sim::Say> said;
        for (const Mrp::DecodedEvent& event : pdu.events) {
            const Mrp::AttributeType& type = Msrp::application().types[event.typeIndex];
            const auto octets = std::span{event.value.octets}.first(type.valueLength);
            Sim::Say one{event.event, type.type, {octets.begin(), octets.end()}, event.value.declaration};
            if (change(one)) said.push_back(one);
        }
        heard.pdu = Sim::pdusOf(said, pdu.leaveAll.any()).front();
    }
    return frames;
}

TEST(Replay, TellsWhereABridgeDecidesOtherwise) {
    const std::vector<Heard> frames = life();
    EXPECT_EQ(told(frames), "the bridge and ours agree on 12 attributes (67 frames in 49.829 s)\n");
    EXPECT_EQ(
        told(changed(frames, "p2",
                     [](Sim::Say& say) {
                         if (say.type == Msrp::typeTalkerFailed) say.value.back() = 8;
                         return true;
                     })),
        "p2 stream 00:00:00:00:00:00/2 talker, from 1.000 s to the end: the bridge declares Talker Failed "
        "code 8 (egress port is not AVB capable), ours Talker Failed code 1 (insufficient bandwidth); ours: "
        "insufficient bandwidth: both classes together may have 75 per cent of the 100M link, 75000 kbps; "
        "9088 are reserved, 92288 more are needed, 26376 are missing, waiting for 2s, first in line; code 8 "
        "says: the stream has to cross a port outside the domain of its class\n"
        "1 difference of more than 2.000 s in 12 attributes (67 frames in 49.829 s)\n");
    EXPECT_EQ(
        told(changed(frames, "p3", [](Sim::Say& say) { return say.event != Mrp::Event::Lv; })),
        "p3 stream 00:00:00:00:00:00/1 talker, from 35.600 s for 13.024 s: the bridge declares Talker "
        "Advertise, ours nothing; ours: no talker: no port has a declaration of a talker for this stream\n"
        "1 difference of more than 2.000 s in 12 attributes (67 frames in 49.829 s)\n");
    EXPECT_EQ(told({frames.begin() + 40, frames.end()}),
              "the bridge and ours agree on 12 attributes (27 frames in 26.809 s)\n"
              "note: p2: the capture begins in the middle; compared from 15.740 s on, when all had declared "
              "everything again\n");
    EXPECT_EQ(told({frames.begin() + 12, frames.begin() + 20}),
              "nothing could be compared for as long as 2.000 s (8 frames in 100.000 ms)\n"
              "note: 12 differences were too young to count when the capture ended\n");
    EXPECT_EQ(told(frames, {}),
              "p2 stream 00:00:00:00:00:00/2 talker, from 1.000 s to the end: the bridge declares Talker "
              "Failed code 1 (insufficient bandwidth), ours Talker Advertise; ours: carried: listener Ready; "
              "92288 kbps reserved; code 1 says: a port on the way has no bandwidth left for streams of both "
              "classes together\n"
              "p1 stream 00:00:00:00:00:00/2 listener, from 1.000 s to the end: the bridge declares Listener "
              "AskingFailed, ours Listener Ready; ours: p2: carried: listener Ready; 92288 kbps reserved\n"
              "2 differences of more than 2.000 s in 12 attributes (67 frames in 49.829 s)\n"
              "note: the bridge has the address 02:00:00:00:00:01, as the configuration gives none\n"
              "note: p1, p2, p3: MSRP is enabled there, which the configuration does not say\n"
              "note: p1, p2, p3: a link of 1 Gbit/s, as the configuration gives no speed\n"
              "note: p1, p2, p3: a tagged member of every VLAN of the configuration and of the capture's "
              "talkers\n");
    std::string problem;
    trafficOf(pcapngOf(frames, false), problem, 0x02'00'00'00'00'50);
    EXPECT_EQ(problem,
              "the capture does not tell which frames the bridge sent on p1, and none of 02:00:00:00:00:01 "
              "02:00:00:00:00:99 is known as its own: name its port's address with --bridge ADDRESS");
}

TEST(Replay, SaysOfEveryFrameWhatOursMakesOfIt) {
    std::vector<Heard> frames = life();
    frames.resize(16);
    const Pcapng::Octets file = pcapngOf(frames);
    std::string problem;
    const Traffic traffic = trafficOf(file, problem);
    std::string all = problem;
    replay(traffic, {config()}, [&](const Annotated& frame) {
        if (frame.ours || frame.comment.find("/2") == std::string::npos) return;
        all += traffic.ports[frame.port] + (frame.sent ? " sent: " : " in: ");
        all += std::string{frame.comment} + '\n';
    });
    EXPECT_EQ(
        all,
        "p1 in: JoinMt Talker Advertise of 00:00:00:00:00:00/1: registered\n"
        "JoinMt Talker Advertise of 00:00:00:00:00:00/2: registered\n"
        "JoinMt Talker Advertise of 00:00:00:00:00:00/3: refused\n"
        "msrpsim: TalkerAdv Join received on p1: StreamId 0x1, failureCode 0\n"
        "msrpsim: TalkerAdv Join received on p1: StreamId 0x2, failureCode 0\n"
        "msrpsim: Discard streamId 0x3 TalkerAdvJoin on p1 with non-multicast Mac DA 02:00:00:00:00:03\n"
        "p2 in: JoinMt Listener Ready of 00:00:00:00:00:00/1: registered\n"
        "JoinMt Listener Ready of 00:00:00:00:00:00/2: registered\n"
        "msrpsim: Listener Join received on p2: StreamId 0x1, state 2\n"
        "msrpsim: Bandwidth 9088 kbps successfully allocated for listener on p2 and streamId 0x1\n"
        "msrpsim: Listener Join transmitted on p1: StreamId 0x1, state 2\n"
        "msrpsim: Listener Join received on p2: StreamId 0x2, state 2\n"
        "msrpsim: StreamId 0x2 failed on p2 because of insufficient bandwidth. Bandwidth needed is 92288 "
        "kbps\n"
        "msrpsim: Bandwidth 92288 kbps allocation failed for listener on p2 and streamId 0x2\n"
        "msrpsim: TalkerFail Join transmitted on p2: StreamId 0x2, failureCode 1, failedBridgeId "
        "0x8000020000000001\n"
        "msrpsim: Listener Join transmitted on p1: StreamId 0x2, state 1\n"
        "p2 sent: JoinMt Talker Advertise of 00:00:00:00:00:00/1: agreed\n"
        "JoinMt Talker Failed code 1 (insufficient bandwidth) of 00:00:00:00:00:00/2: agreed\n"
        "p3 sent: JoinMt Talker Advertise of 00:00:00:00:00:00/1: agreed\n"
        "JoinMt Talker Advertise of 00:00:00:00:00:00/2: agreed\n"
        "p1 sent: JoinMt Listener Ready of 00:00:00:00:00:00/1: agreed\n"
        "JoinMt Listener AskingFailed of 00:00:00:00:00:00/2: agreed\n"
        "p1 in: JoinMt Talker Advertise of 00:00:00:00:00:00/1: registered\n"
        "JoinMt Talker Advertise of 00:00:00:00:00:00/2: registered\n"
        "JoinMt Talker Advertise of 00:00:00:00:00:00/3: refused\n");
}

/// The same capture as others write it.
Pcapng::Octets classic(const std::vector<Heard>& frames, bool big) {
    Pcapng::Octets out;
    const auto u32 = [&](std::uint64_t value) {
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<std::uint8_t>(value >> (big ? 24 - 8 * i : 8 * i)));
    };
    for (const std::uint32_t word : {0xA1B23C4DU, big ? 0x00020004U : 0x00040002U, 0U, 0U, 65535U, 1U})
        u32(word);
    for (const Heard& heard : frames) {
        const Pcapng::Octets frame = framed(heard, true);
        const auto time = static_cast<std::uint64_t>(heard.time.time_since_epoch().count());
        for (const std::uint64_t word :
             {time / 1'000'000'000, time % 1'000'000'000, frame.size(), frame.size()})
            u32(word);
        out.insert(out.end(), frame.begin(), frame.end());
    }
    return out;
}

TEST(CaptureFile, IsReadAsFarAsItIsWhole) {
    std::vector<Heard> frames = life();
    frames.resize(5);
    for (const Pcapng::Octets& file : {pcapngOf(frames), classic(frames, false), classic(frames, true)}) {
        const auto count = [&](std::size_t length) {
            // A copy of just its size: reading past its end is then seen.
            const Pcapng::Octets cut(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(length));
            std::size_t frame = 0;
            const Capture read = readCapture(cut, [&](const Capture&, const CapturedFrame& one) {
                EXPECT_EQ(one.time, frames[frame++].time);
            });
            EXPECT_EQ(read.frames, frame);
            EXPECT_TRUE(!read.broken || read.broken->at < std::max<std::size_t>(length, 1));
            return std::pair{frame, read.broken.has_value()};
        };
        std::size_t whole = 0;
        std::size_t before = 0;
        for (std::size_t length = 0; length <= file.size(); ++length) {
            const auto [read, broken] = count(length);
            EXPECT_TRUE(read == before || (read == before + 1 && !broken)) << length;
            whole += broken ? 0 : 1;
            before = read;
        }
        EXPECT_EQ(before, frames.size());
        EXPECT_LE(whole, 1 + 3 + frames.size());
    }
}

}  // namespace
}  // namespace Plan
