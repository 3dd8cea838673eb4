#include "Mrp/PduWriter.h"
#include "Mvrp/Application.h"
#include "Runtime/BigEndian.h"
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <gtest/gtest.h>
#include <map>
#include <utility>

namespace {

using Mrp::Event;
using Sim::Pdu;
using namespace std::chrono_literals;

Pdu octets(const std::string& hex) {
    Pdu out;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

/// "LeaveAll; JoinIn 2; Lv 10", and what is wrong with it.
std::string text(const Pdu& pdu) {
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, Mvrp::application(), decoded);
    std::string out = decoded.leaveAll.any() ? "LeaveAll; " : "";
    for (const Mrp::DecodedEvent& e : decoded.events)
        out += State::enumText(e.event) + ' ' +
               std::to_string(Mvrp::application().types[0].key(e.value.octets)) + "; ";
    for (const Mrp::Flaw& flaw : decoded.flaws)
        out += State::enumText(flaw.reason) + '@' + std::to_string(flaw.offset) + "; ";
    return out.substr(0, out.size() - std::min<std::size_t>(out.size(), 2));
}

Pdu pduOf(const std::vector<std::pair<Event, unsigned>>& events, bool leaveAll = false) {
    Mrp::PduWriter writer{Mvrp::application(), leaveAll};
    for (const auto& [event, vid] : events) {
        Mrp::AttributeValue value;
        Runtime::bigEndianIs(std::span{value.octets}.first(2), vid);
        EXPECT_TRUE(writer.add(0, event, value));
    }
    const auto out = writer.finish();
    return {out.begin(), out.end()};
}

TEST(VlanPdus, AreReadAndWrittenAsAnotherDecoderSaysThem) {
    const std::pair<const char*, const char*> golden[] = {
        {"000102000100026c00000000", "JoinMt 2"},
        {"000102000100640000000000", "New 100"},
        {"000102000300012b00000000", "JoinIn 1; JoinIn 2; JoinIn 3"},
        {"000102200100022400000000", "LeaveAll; JoinIn 2"},
        {"0001022000000000000000", "LeaveAll"},
        {"0001020001000ab4000200144e00000000", "Lv 10; In 20; JoinIn 21"},
        {"00010200040ffa816c00000000", "JoinMt 4090; JoinMt 4091; JoinMt 4092; JoinMt 4093"},
    };
    for (const auto& [hex, says] : golden) {
        const Pdu pdu = octets(hex);
        EXPECT_EQ(text(pdu), says);
        Mrp::DecodedPdu decoded;
        Mrp::decode(pdu, Mvrp::application(), decoded);
        Mrp::PduWriter writer{Mvrp::application(), decoded.leaveAll.any()};
        for (const Mrp::DecodedEvent& e : decoded.events) EXPECT_TRUE(writer.add(0, e.event, e.value));
        EXPECT_TRUE(std::ranges::equal(writer.finish(), pdu)) << says;
    }
    // All of them fit into one frame.
    std::vector<std::pair<Event, unsigned>> all;
    for (unsigned vid = 1; vid <= 4094; ++vid) all.emplace_back(Event::JoinIn, vid);
    EXPECT_EQ(pduOf(all).size(), 1376U);
}

TEST(VlanPdus, LoseWhatIsMalformedAndNoMore) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"nothing", "", "tooShort@0"},
        {"type without length", "0001", "tooShort@2"},
        {"header cut off", "000102000100026c00000001", "JoinMt 2"},
        {"vector past the end", "000102000900026c", "vectorPastEnd@3"},
        {"no end mark", "000102000100026c", "JoinMt 2"},
        {"end of the frame instead", "000102000100026c000000000000", "JoinMt 2"},
        {"unknown type before it",
         "000703000101020324000001020001000224"
         "00000000",
         "JoinIn 2"},
        {"unknown type that does not end", "00070300010102032400", ""},
        {"wrong length",
         "0001030001010203240000"
         "01020001000224"
         "00000000",
         "JoinIn 2; wrongLength@2"},
        {"past the last VLAN", "00010200030ffd2b00000000", "JoinIn 4093; JoinIn 4094; valuePastRange@7"},
        {"events that are none",
         "00010200060002"
         "2bd9"
         "00000000",
         "JoinIn 2; JoinIn 3; JoinIn 4; eventPastRange@8"},
    };
    for (const auto& [what, hex, says] : cases) EXPECT_EQ(text(octets(hex)), says) << what;
}

/// A switch with three ports in no VLAN but 1, and what is heard behind them.
class Mvrp3 : public testing::Test {
protected:
    void SetUp() override {
        for (const std::string& port : ports) {
            bridge.vlanIs(1, port, false);
            bridge.vlanDel(2, port);
            bridge.mvrpPorts().cableIs(IntfId{port},
                                       [this, port](const Pdu& pdu) { heard[port] += text(pdu) + "; "; });
        }
        bridge.mvrpConfig->allowedIs(IntfId{"p3"}, *parseVlans("1-4094"));
        // Peers of few words: what ages is asked for in so many words.
        bridge.database().entityIs<Mrp::MrpConfig>("mvrp/mrp/config")->leaveAllTimeIs(60'000);
        bridge.start();
        bridge.mvrpStart();
        after(5s);
    }
    void say(const std::string& port, const std::vector<std::pair<Event, unsigned>>& events,
             bool leaveAll = false) {
        bridge.mvrpPorts().deliver(IntfId{port}, pduOf(events, leaveAll));
    }
    void after(Runtime::Duration span) { loop.runFor(span); }
    /// What was said of VLANs but the first one since the last call, port by port.
    std::string said() {
        std::string out;
        for (auto& [port, words] : std::exchange(heard, {})) {
            std::string rest;
            for (std::size_t at = 0, end = 0; (end = words.find("; ", at)) != std::string::npos;
                 at = end + 2) {
                const std::string word = words.substr(at, end - at);
                if (!word.empty() && !word.ends_with(" 1") && word != "LeaveAll" &&
                    !rest.ends_with(' ' + word))
                    rest += ' ' + word;
            }
            if (!rest.empty()) out += port + ':' + rest + '\n';
        }
        return out;
    }
    /// "p1: registered 2 declared 1 fixed 1; carries 1,2", a line for each port.
    [[nodiscard]] std::string picture() const {
        std::string out;
        for (const std::string& port : ports) {
            out += port + ':';
            if (const auto status = std::as_const(*bridge.mvrpStatus).intfStatus(IntfId{port})) {
                const std::pair<const char*, VlanSet> sets[] = {{" registered ", status->registered()},
                                                                {" refused ", status->refused()},
                                                                {" declared ", status->declared()},
                                                                {" fixed ", status->fixed()}};
                for (const auto& [name, set] : sets) out += set.any() ? name + vlanText(set) : "";
            }
            VlanSet carries;
            bridge.bridging->vlanConfig().each([&](VlanId vlan, const Bridging::VlanConfig& config) {
                if (config.intf(IntfId{port})) carries.set(vlan.value());
            });
            out += "; carries " + vlanText(carries) + '\n';
        }
        return out;
    }

    const std::vector<std::string> ports{"p1", "p2", "p3"};
    Runtime::VirtualLoop loop;
    Sim::Bridge bridge{loop, ports};
    std::map<std::string, std::string> heard;
};

TEST_F(Mvrp3, WhatOnePortAsksForIsDeclaredOnTheOthersUntilItLeaves) {
    EXPECT_EQ(picture(),
              "p1: declared 1 fixed 1; carries 1\np2: declared 1 fixed 1; carries 1\np3: declared 1 fixed 1; "
              "carries 1\n");
    EXPECT_NE(heard["p2"].find("New 1"), std::string::npos) << "what a port says first";
    said();
    say("p1", {{Event::JoinMt, 2}});
    after(1s);
    EXPECT_EQ(picture(),
              "p1: registered 2 declared 1 fixed 1; carries 1,2\n"
              "p2: declared 1,2 fixed 1; carries 1\np3: declared 1,2 fixed 1; carries 1\n");
    EXPECT_EQ(said(), "p2: JoinMt 2\np3: JoinMt 2\n");
    // A second one: now each has another one behind it.
    say("p2", {{Event::JoinMt, 2}});
    after(1s);
    EXPECT_EQ(said(), "p1: JoinIn 2\np2: JoinIn 2\n");
    say("p1", {{Event::Lv, 2}});
    after(2s);
    EXPECT_EQ(picture(),
              "p1: declared 1,2 fixed 1; carries 1\n"
              "p2: registered 2 declared 1 fixed 1; carries 1,2\np3: declared 1,2 fixed 1; carries 1\n");
    EXPECT_EQ(said(), "p1: JoinMt 2\np2: Lv 2\n");
    // A peer that says nothing any more is gone after the second LeaveAll at the latest.
    after(200s);
    EXPECT_EQ(picture(),
              "p1: declared 1 fixed 1; carries 1\np2: declared 1 fixed 1; carries 1\np3: declared 1 fixed 1; "
              "carries 1\n");
}

TEST_F(Mvrp3, OnlyWhatIsAllowedIsRegistered) {
    say("p1", {{Event::JoinIn, 0}, {Event::JoinIn, 3}});
    say("p1", {{Event::JoinIn, 4095}});
    say("p3", {{Event::JoinIn, 3}, {Event::JoinIn, 4}, {Event::JoinIn, 4094}});
    after(1s);
    EXPECT_EQ(picture(),
              "p1: refused 3 declared 1,3,4,4094 fixed 1; carries 1\n"
              "p2: declared 1,3,4,4094 fixed 1; carries 1\n"
              "p3: registered 3,4,4094 declared 1 fixed 1; carries 1,3,4,4094\n");
    EXPECT_EQ(bridge.logged("VLAN 3 is asked for on p1, where it is not allowed"), 1U);
    bridge.mvrpConfig->allowedIs(IntfId{"p1"}, *parseVlans("3"));
    bridge.mvrpConfig->allowedIs(IntfId{"p3"}, *parseVlans("4"));
    after(1s);
    EXPECT_EQ(picture(),
              "p1: registered 3 declared 1,4 fixed 1; carries 1,3\n"
              "p2: declared 1,3,4 fixed 1; carries 1\np3: registered 4 declared 1,3 fixed 1; carries 1,4\n");
}

TEST_F(Mvrp3, TheAdministratorsMembershipsAreFixedAndStay) {
    bridge.vlanIs(2, "p1", true);
    say("p1", {{Event::JoinIn, 2}});
    say("p2", {{Event::JoinIn, 2}});
    after(1s);
    const std::string both =
        "p1: registered 2 declared 1,2 fixed 1,2; carries 1,2\n"
        "p2: registered 2 declared 1,2 fixed 1; carries 1,2\np3: declared 1,2 fixed 1; carries 1\n";
    EXPECT_EQ(picture(), both);
    say("p1", {{Event::Lv, 2}});
    say("p2", {{Event::Lv, 2}});
    after(2s);
    EXPECT_EQ(picture(),
              "p1: declared 1 fixed 1,2; carries 1,2\n"
              "p2: declared 1,2 fixed 1; carries 1\np3: declared 1,2 fixed 1; carries 1\n");
    bridge.vlanDel(2, "p1");
    after(1s);
    EXPECT_EQ(picture(),
              "p1: declared 1 fixed 1; carries 1\np2: declared 1 fixed 1; carries 1\np3: declared 1 fixed 1; "
              "carries 1\n");
}

TEST_F(Mvrp3, NewsOfAChangedNetworkIsPassedOnAndForgetsAddresses) {
    const auto flushes = [this] {
        std::string out;
        for (const std::string& port : ports)
            out += std::to_string(
                       std::as_const(*bridge.vlanRequests).port(IntfId{port})->flush().get(VlanId{2})) +
                   ' ';
        return out;
    };
    say("p1", {{Event::JoinMt, 2}});
    say("p3", {{Event::JoinMt, 2}});
    after(2s);
    said();
    const std::string before = flushes();
    say("p1", {{Event::New, 2}});
    after(1s);
    EXPECT_EQ(said(), "p2: New 2\np3: New 2\n");
    EXPECT_EQ(before + flushes(), "0 0 0 1 1 1 ");
    // A port that begins to forward has other stations behind it.
    bridge.stp->modeIs(Stp::Mode::Rstp);
    const auto topology = bridge.topology->topoConfigIs(std::string{Stp::cistName});
    for (const std::string& port : ports)
        topology->topoPortConfigIs(IntfId{port})->stateIs(Bridging::Topology::PortState::forwarding);
    after(2s);
    topology->topoPortConfigIs(IntfId{"p3"})->stateIs(Bridging::Topology::PortState::blocking);
    say("p2", {{Event::JoinMt, 2}});
    after(2s);
    EXPECT_EQ(picture(),
              "p1: registered 2 declared 1,2 fixed 1; carries 1,2\n"
              "p2: registered 2 declared 1,2 fixed 1; carries 1,2\np3: registered 2 fixed 1; carries 1,2\n");
    said();
    topology->topoPortConfigIs(IntfId{"p3"})->stateIs(Bridging::Topology::PortState::forwarding);
    after(1s);
    EXPECT_EQ(said(), "p3: New 2\n");
}

TEST_F(Mvrp3, AListenerGetsItsStreamWithItsVlanAndLosesItAgain) {
    Sim::Peer talker{bridge, "p1"};
    Sim::Peer listener{bridge, "p2"};
    bridge.vlanIs(2, "p1", true);
    const auto round = [&] {
        talker.say(Sim::domains());
        talker.say(Sim::advertise({}));
        listener.say(Sim::domains());
        listener.say(Sim::listener(1, Msrp::ListenerState::Ready));
        after(500ms);
    };
    round();
    EXPECT_NE(listener.registered().find("Failed"), std::string::npos) << listener.registered();
    say("p2", {{Event::JoinMt, 2}});
    after(1s);
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p2") << listener.registered();
    say("p2", {{Event::Lv, 2}});
    after(2s);
    EXPECT_NE(listener.registered().find("Failed"), std::string::npos);
    EXPECT_NE(listener.registered().find("17"), std::string::npos) << listener.registered();
}

TEST_F(Mvrp3, PortsThatGoAndAnEndLeaveNothing) {
    say("p1", {{Event::JoinMt, 2}});
    say("p3", {{Event::JoinMt, 2}});
    after(1s);
    bridge.linkIs("p1", false);
    after(1s);
    EXPECT_EQ(picture(),
              "p1:; carries 1\np2: declared 1,2 fixed 1; carries 1\n"
              "p3: registered 2 declared 1 fixed 1; carries 1,2\n");
    bridge.mvrpConfig->intfEnableIs(IntfId{"p3"}, false);
    bridge.linkIs("p1", true);
    after(1s);
    EXPECT_EQ(picture(),
              "p1: declared 1 fixed 1; carries 1\np2: declared 1 fixed 1; carries 1\np3:; carries 1\n");
    say("p1", {{Event::JoinMt, 2}});
    after(1s);
    said();
    bridge.mvrpStop();
    after(1s);
    EXPECT_EQ(said(), "p2: Lv 2\n");
    EXPECT_EQ(picture(), "p1:; carries 1\np2:; carries 1\np3:; carries 1\n");
    EXPECT_FALSE(bridge.vlanRequests->running());
}

}  // namespace
