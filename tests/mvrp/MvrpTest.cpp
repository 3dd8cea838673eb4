#include "Mrp/PduWriter.h"
#include "Mvrp/Application.h"
#include "Runtime/BigEndian.h"
#include "Runtime/Text.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"
#include "tests/Octets.h"

#include <gtest/gtest.h>
#include <map>
#include <set>
#include <utility>

namespace {

using Mrp::Event;
using Runtime::concat;
using Sim::Pdu;
using namespace std::chrono_literals;

/// "JoinIn 2"
std::string text(const Mrp::DecodedEvent& e) {
    return concat(State::enumText(e.event), ' ', Runtime::bigEndian(std::span{e.value.octets}.first(2)));
}
/// "LeaveAll; JoinIn 2; Lv 10", and what is wrong with it.
std::string text(const Mrp::DecodedPdu& decoded) {
    std::string out = decoded.leaveAll.any() ? "; LeaveAll" : "";
    for (const Mrp::DecodedEvent& e : decoded.events) out += "; " + text(e);
    for (const Mrp::Flaw& flaw : decoded.flaws)
        out += concat("; ", State::enumText(flaw.reason), '@', flaw.offset);
    return out.substr(std::min<std::size_t>(out.size(), 2));
}

Pdu pduOf(const std::vector<std::pair<Event, unsigned>>& events) {
    Mrp::PduWriter writer{Mvrp::application(), false};
    for (const auto& [event, vid] : events) {
        Mrp::AttributeValue value;
        Runtime::bigEndianIs(std::span{value.octets}.first(2), vid);
        EXPECT_TRUE(writer.add(0, event, value));
    }
    const auto out = writer.finish();
    return {out.begin(), out.end()};
}

TEST(VlanPdus, AreReadAndWrittenAsAnotherDecoderSaysThemAndLoseWhatIsMalformedAndNoMore) {
    struct Case {
        const char* octets;
        const char* says;
        bool canonical = true;
    };
    const auto cases = std::to_array<Case>({
        {"000102000100026c00000000", "JoinMt 2"},
        {"000102000100640000000000", "New 100"},
        {"000102000300012b00000000", "JoinIn 1; JoinIn 2; JoinIn 3"},
        {"000102200100022400000000", "LeaveAll; JoinIn 2"},
        {"0001022000000000000000", "LeaveAll"},
        {"0001020001000ab4000200144e00000000", "Lv 10; In 20; JoinIn 21"},
        {"00010200040ffa816c00000000", "JoinMt 4090; JoinMt 4091; JoinMt 4092; JoinMt 4093"},
        // Its end: missing, cut off, or that of the frame.
        {"000102000100026c", "JoinMt 2", false},
        {"000102000100026c00000001", "JoinMt 2", false},
        {"000102000100026c000000000000", "JoinMt 2", false},
        // An unknown type is passed over vector by vector, if it ends.
        {"00070300010102032400000102000100022400000000", "JoinIn 2", false},
        {"00070300010102032400", "", false},
        {"", "tooShort@0", false},
        {"0001", "tooShort@2", false},
        {"000102000900026c", "vectorPastEnd@3", false},
        {"00010300010102032400000102000100022400000000", "JoinIn 2; wrongLength@2", false},
        {"00010200030ffd2b00000000", "JoinIn 4093; JoinIn 4094; valuePastRange@7", false},
        {"000102000600022bd900000000", "JoinIn 2; JoinIn 3; JoinIn 4; eventPastRange@8", false},
    });
    for (const Case& c : cases) {
        const Pdu pdu = octets(c.octets);
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, Mvrp::application(), decoded);
        EXPECT_EQ(text(decoded), c.says) << c.octets;
        if (!c.canonical) continue;
        Mrp::PduWriter writer{Mvrp::application(), decoded.leaveAll.any()};
        for (const Mrp::DecodedEvent& e : decoded.events) EXPECT_TRUE(writer.add(0, e.event, e.value));
        EXPECT_TRUE(std::ranges::equal(writer.finish(), pdu)) << c.says;
    }
    // All of them fit into one frame.
    std::vector<std::pair<Event, unsigned>> all;
    for (unsigned vid = 1; vid <= 4094; ++vid) all.emplace_back(Event::JoinIn, vid);
    EXPECT_EQ(pduOf(all).size(), 1376U);
}

/// A switch with three ports in no VLAN but 1, and what is heard behind them.
class Mvrp3 : public testing::Test {
protected:
    void SetUp() override {
        for (const std::string& port : ports) {
            bridge.vlanIs(1, port, false);
            bridge.vlanDel(2, port);
            bridge.mvrpPorts().cableIs(IntfId{port}, [this, port](const Pdu& pdu) { hear(port, pdu); });
        }
        bridge.mvrpConfig->allowedIs(IntfId{"p3"}, *parseVlans("1-4094"));
        // Peers of few words: what ages is asked for in so many words.
        bridge.database().entityIs<Mrp::MrpConfig>("mvrp/mrp/config")->leaveAllTimeIs(60'000);
        bridge.start();
        bridge.mvrpStart();
        loop.runFor(5s);
        EXPECT_EQ(asked.size(), ports.size()) << "a port that starts asks for what was registered before";
    }
    void say(const std::string& port, const std::vector<std::pair<Event, unsigned>>& events) {
        bridge.mvrpPorts().deliver(IntfId{port}, pduOf(events));
    }
    void hear(const std::string& port, const Pdu& pdu) {
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, Mvrp::application(), decoded);
        if (decoded.leaveAll.any()) asked.insert(port);
        for (const Mrp::DecodedEvent& e : decoded.events) {
            const std::string word = ' ' + text(e);
            if (!word.ends_with(" 1") && !heard[port].ends_with(word)) heard[port] += word;
        }
    }
    /// Time for leave timers, too short for a LeaveAll.
    void settle() { loop.runFor(2s); }
    /// What was said of VLANs but the first one since the last call, port by port, when all has settled.
    std::string said() {
        settle();
        std::string out;
        for (const auto& [port, words] : std::exchange(heard, {})) out += concat(port, ':', words, '\n');
        return out;
    }
    /// "p1 registered 2 declared 2 carries 2", a line for each port; without VLAN 1 where that is declared,
    /// fixed and carried as in the beginning.  When all has settled.
    [[nodiscard]] std::string picture() {
        settle();
        std::string out;
        for (const std::string& port : ports) {
            VlanSet registered, refused, declared, fixed, carries;
            if (const auto status = std::as_const(*bridge.mvrpStatus).intfStatus(IntfId{port})) {
                registered = status->registered(), refused = status->refused();
                declared = status->declared(), fixed = status->fixed();
            }
            bridge.bridging->vlanConfig().each([&](VlanId vlan, const Bridging::VlanConfig& config) {
                if (config.intf(IntfId{port})) carries.set(vlan.value());
            });
            if (declared[1] && fixed[1] && carries[1]) declared[1] = fixed[1] = carries[1] = false;
            out += port;
            for (const auto& [name, set] : {std::pair{" registered ", &registered},
                                            {" refused ", &refused},
                                            {" declared ", &declared},
                                            {" fixed ", &fixed},
                                            {" carries ", &carries}})
                out += set->any() ? name + vlanText(*set) : "";
            out += '\n';
        }
        return out;
    }

    const std::string none = "p1\np2\np3\n";  ///< picture
    const std::vector<std::string> ports{"p1", "p2", "p3"};
    Runtime::VirtualLoop loop;
    Sim::Bridge bridge{loop, ports};
    std::map<std::string, std::string> heard;
    std::set<std::string> asked;  ///< where a LeaveAll was heard
};

TEST_F(Mvrp3, WhatOnePortAsksForIsDeclaredOnTheOthersUntilItLeaves) {
    EXPECT_EQ(picture(), none);
    const auto engine = bridge.database().entityIs<Mrp::MrpStatus>("mvrp/mrp/status");
    EXPECT_GE(engine->intf(IntfId{"p2"})->txEvents(Event::New), 1U) << "what a port says first";
    say("p1", {{Event::JoinMt, 2}});
    EXPECT_EQ(picture(), "p1 registered 2 carries 2\np2 declared 2\np3 declared 2\n");
    EXPECT_EQ(said(), "p2: JoinMt 2\np3: JoinMt 2\n");
    // A second one: now each has another one behind it.
    say("p2", {{Event::JoinMt, 2}});
    EXPECT_EQ(said(), "p1: JoinIn 2\np2: JoinIn 2\n");
    say("p1", {{Event::Lv, 2}});
    EXPECT_EQ(picture(), "p1 declared 2\np2 registered 2 carries 2\np3 declared 2\n");
    EXPECT_EQ(said(), "p1: JoinMt 2\np2: Lv 2\n");
    // A peer that says nothing any more is gone after the second LeaveAll at the latest.
    loop.runFor(200s);
    EXPECT_EQ(picture(), none);
}

TEST_F(Mvrp3, OnlyWhatIsAllowedIsRegistered) {
    say("p1", {{Event::JoinIn, 0}, {Event::JoinIn, 3}});
    say("p1", {{Event::JoinIn, 4095}});
    say("p3", {{Event::JoinIn, 3}, {Event::JoinIn, 4}, {Event::JoinIn, 4094}});
    EXPECT_EQ(
        picture(),
        "p1 refused 3 declared 3,4,4094\np2 declared 3,4,4094\np3 registered 3,4,4094 carries 3,4,4094\n");
    EXPECT_EQ(bridge.logged("VLAN 3 is asked for on p1, where it is not allowed"), 1U);
    bridge.mvrpConfig->allowedIs(IntfId{"p1"}, *parseVlans("3"));
    bridge.mvrpConfig->allowedIs(IntfId{"p3"}, *parseVlans("4"));
    EXPECT_EQ(
        picture(),
        "p1 registered 3 declared 4 carries 3\np2 declared 3,4\np3 registered 4 declared 3 carries 4\n");
}

TEST_F(Mvrp3, TheAdministratorsMembershipsAreFixedAndStay) {
    bridge.vlanIs(2, "p1", true);
    say("p1", {{Event::JoinIn, 2}});
    say("p2", {{Event::JoinIn, 2}});
    EXPECT_EQ(picture(),
              "p1 registered 2 declared 2 fixed 2 carries 2\np2 registered 2 declared 2 carries 2\np3 "
              "declared 2\n");
    say("p1", {{Event::Lv, 2}});
    say("p2", {{Event::Lv, 2}});
    EXPECT_EQ(picture(), "p1 fixed 2 carries 2\np2 declared 2\np3 declared 2\n");
    bridge.vlanDel(2, "p1");
    EXPECT_EQ(picture(), none);
}

TEST_F(Mvrp3, NewsOfAChangedNetworkIsPassedOnAndForgetsAddresses) {
    const auto flushes = [this] {
        std::string out;
        for (const std::string& port : ports)
            out += concat(bridge.vlanRequests->portIs(IntfId{port})->flush().get(VlanId{2}), ' ');
        return out;
    };
    say("p1", {{Event::JoinMt, 2}});
    say("p3", {{Event::JoinMt, 2}});
    said();
    const std::string before = flushes();
    say("p1", {{Event::New, 2}});
    EXPECT_EQ(said(), "p2: New 2\np3: New 2\n");
    EXPECT_EQ(before + flushes(), "0 0 0 1 1 1 ");
    // A port that begins to forward has other stations behind it.
    bridge.stp->modeIs(Stp::Mode::Rstp);
    const auto topology = bridge.topology->topoConfigIs(std::string{Stp::cistName});
    for (const std::string& port : ports)
        topology->topoPortConfigIs(IntfId{port})->stateIs(Bridging::Topology::PortState::forwarding);
    settle();
    topology->topoPortConfigIs(IntfId{"p3"})->stateIs(Bridging::Topology::PortState::blocking);
    say("p2", {{Event::JoinMt, 2}});
    EXPECT_EQ(picture(),
              "p1 registered 2 declared 2 carries 2\np2 registered 2 declared 2 carries 2\np3 registered 2 "
              "fixed 1 carries 1,2\n");
    said();
    say("p3", {{Event::New, 2}});
    EXPECT_EQ(said(), "") << "what is heard on a port that does not forward would go round for ever";
    topology->topoPortConfigIs(IntfId{"p3"})->stateIs(Bridging::Topology::PortState::forwarding);
    EXPECT_EQ(said(), "p3: New 2\n");
}

TEST_F(Mvrp3, AListenerGetsItsStreamWithItsVlanAndLosesItAgain) {
    Sim::Peer talker{bridge, "p1"};
    Sim::Peer listener{bridge, "p2"};
    bridge.vlanIs(2, "p1", true);
    const auto failed = [&] { return listener.registered().find("Failed 0x1 code 17") != std::string::npos; };
    talker.say(Sim::domains());
    talker.say(Sim::advertise({}));
    listener.say(Sim::domains());
    listener.say(Sim::listener(1, Msrp::ListenerState::Ready));
    loop.runFor(500ms);
    EXPECT_TRUE(failed()) << listener.registered();
    say("p2", {{Event::JoinMt, 2}});
    settle();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p2") << listener.registered();
    say("p2", {{Event::Lv, 2}});
    settle();
    EXPECT_TRUE(failed()) << listener.registered();
}

TEST_F(Mvrp3, PortsThatGoAndAnEndLeaveNothing) {
    say("p1", {{Event::JoinMt, 2}});
    say("p3", {{Event::JoinMt, 2}});
    settle();
    bridge.linkIs("p1", false);
    EXPECT_EQ(picture(), "p1 carries 1\np2 declared 2\np3 registered 2 carries 2\n");
    bridge.mvrpConfig->intfEnableIs(IntfId{"p3"}, false);
    bridge.linkIs("p1", true);
    EXPECT_EQ(picture(), "p1\np2\np3 carries 1\n");
    say("p1", {{Event::JoinMt, 2}});
    said();
    bridge.mvrpStop();
    EXPECT_EQ(said(), "p2: Lv 2\n");
    EXPECT_EQ(picture(), "p1 carries 1\np2 carries 1\np3 carries 1\n");
    EXPECT_FALSE(bridge.vlanRequests->running());
}

}  // namespace
