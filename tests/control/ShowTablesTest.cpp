#include "Control/Json.h"
#include "Linux/Dataplane.h"
#include "Linux/ports/PacketRecords.h"
#include "Runtime/RecentLog.h"
#include "Show/Streams.h"
#include "Show/Views.h"
#include "tests/control/ShownBridge.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Bridging::Topology::PortState;
using Msrp::ListenerState;

std::string json(const State::Value& all, std::initializer_list<std::string_view> names) {
    return Control::jsonText(Show::at(all, names));
}

TEST(ShowStreams, TellsWhoCarriesAStreamAndWhyTheOthersDoNot) {
    ShownBridge b{{"swp1", "swp2", "swp3", "swp4", "swp5", "swp6", "swp7", "swp8"}};
    EXPECT_EQ(b.text(Show::streams()), "no streams\n");
    b.startWithFaults();
    for (const char* port : {"swp1", "swp2", "swp3", "swp7", "swp8"}) b.says(port, Sim::domains());
    b.says("swp1", {Sim::advertise({.id = 0x1122334455FF0001, .latency = 500})});
    b.says("swp2", {Sim::listener(0x1122334455FF0001, ListenerState::Ready),
                    Sim::failed({.id = 2, .macDa = 0x91'e0'f0'00'00'02}, 3)});
    b.loop.runFor(88s);
    b.says("swp3", {Sim::listener(0x1122334455FF0001, ListenerState::Ready)});
    b.loop.runFor(12s);
    b.record<Linux::GroupStatus>("linux/groups")->routerPortIs(IntfId{"swp7"});
    EXPECT_EQ(b.text(Show::streams()),
              R"(STREAM               ID                  FROM  DESTINATION        VLAN  CLASS  KBPS  AGE
00:00:00:00:00:00/2  0x2                 swp2  91:e0:f0:00:00:02  2     A      9088  1m41s
    talker failed: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:99)
    not to swp1, swp3, swp7: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:99)
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
    not to swp8: not a port of bridge br0
11:22:33:44:55:ff/1  0x1122334455FF0001  swp1  91:e0:f0:00:00:01  2     A      9088  12s
    to swp2 (1m41s)
    not to swp3: insufficient bandwidth (found by this bridge), 1588 kbps missing, waiting for 12s, first in line
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
    not to swp7: no listener
    not to swp8: not a port of bridge br0
Every stream goes to swp7 as well: a multicast router is taken to be there.
)");
}

TEST(ShowPorts, TellsWhoWaitsForWhatInTheOrderInWhichTheyAreTried) {
    ShownBridge b{{"swp1", "swp2"}};
    b.bridge.cliConfig->srClassABandwidthPercentIs(1);
    const auto shaping = b.record<Linux::CapabilityStatus>("linux/capabilities")->shapingIs(IntfId{"swp2"});
    shaping->shaperIs(Linux::Shaper::htb);
    b.bridge.start();
    b.loop.runFor(1s);
    for (const char* port : {"swp1", "swp2"}) b.says(port, Sim::domains());
    const auto talk = [](std::uint64_t id, std::uint64_t address) {
        return Sim::advertise({.id = id, .macDa = 0x91'e0'f0'00'00'00 + address});
    };
    b.says("swp1", {talk(3, 3), talk(4, 4), talk(5, 5)});
    for (const std::uint64_t id : {3U, 5U, 4U, 6U}) {
        b.says("swp2", {Sim::listener(id, ListenerState::Ready)});
        b.loop.runFor(10s);
    }
    // 6 is refused when it is declared; 7 and 8 want the address of 3.
    for (const std::uint64_t id : {6U, 7U, 8U}) {
        b.says("swp1", {talk(id, id == 6 ? 6 : 3)});
        b.loop.runFor(30s);
    }
    const auto snapshot = b.snapshot(Show::streams());
    EXPECT_EQ(Show::streamText(snapshot, Show::streamReports(snapshot).back()),
              R"(stream       00:00:00:00:00:00/8 (0x8)
talker       swp1, Advertise since 30s, stream destination address already in use (found by this bridge), held by 00:00:00:00:00:00/3, waiting for 30s at place 2 behind 00:00:00:00:00:00/7
destination  91:e0:f0:00:00:03, VLAN 2
class        A, priority 3, rank 1
bandwidth    9088 kbps (1 frames of at most 100 octets in an interval)
latency      0 ns up to here
PORT  CARRIED  TALKER  LISTENER  AGE  WHY NOT
swp2  no       Failed  -         30s  stream destination address already in use (found by this bridge)
)");
    EXPECT_EQ(json(b.value(Show::streams()), {"0x4", "ports", "swp2", "waiting"}),
              R"({"age":112.5,"place":2,"behind":"0x5","heldBy":null,"missingKbps":8176})");
    // A port that is not there, and one whose queues are not what they should be.
    b.bridge.config->intfEnableIs(IntfId{"swp9"}, true);
    b.bridge.refusals->portIs(IntfId{"swp1"}, "half duplex");
    EXPECT_EQ(
        b.text(Show::ports()),
        R"(PORT  LINK          SPEED  TIME  STATE       CLASS A       A KBPS      CLASS B       B KBPS   SHAPED KBPS     WAITING  RX PDUS  TX PDUS  REFUSED  MALFORMED  DROPPED
swp1  up            1G     -     Forwarding  Core          0/10000     Core          0/10000  none            2        8        11       0        0          0
    queues are not shaped: half duplex
    00:00:00:00:00:00/7 wants its address, held by 00:00:00:00:00:00/3, waiting for 1m01s, first in line
    00:00:00:00:00:00/8 wants its address, held by 00:00:00:00:00:00/3, waiting for 30s at place 2 behind 00:00:00:00:00:00/7
swp2  up            1G     -     Forwarding  Core          9088/10000  Core          0/912    unicast:7 9088  3        6        15       0        0          0
    00:00:00:00:00:00/5 wants bandwidth, 8176 kbps missing, waiting for 2m03s, first in line
    00:00:00:00:00:00/4 wants bandwidth, 8176 kbps missing, waiting for 1m52s at place 2 behind 00:00:00:00:00:00/5
    00:00:00:00:00:00/6 wants bandwidth, 8176 kbps missing, waiting for 1m31s, looked at again when its talker repeats it
swp9  no interface  -      -     Blocked     NotSupported  0/0         NotSupported  0/0      -               0        -        -        -        -          -
)");
    EXPECT_EQ(json(b.value(Show::ports()), {"swp2", "shaped"}), R"({"unicast:7":9088})");
    shaping->shaperIs(Linux::Shaper::none);
    EXPECT_EQ(json(b.value(Show::ports()), {"swp2", "notShaped"}), R"("nothing is reserved")");
    // Every member, whatever is known.
    EXPECT_EQ(
        json(b.value(Show::ports()), {"swp9"}),
        R"({"link":"no interface","speed":null,"time":null,"portState":"Blocked","srClassA":"NotSupported","srClassABandwidth":"0/0",)"
        R"("srClassB":"NotSupported","srClassBBandwidth":"0/0","shaped":{},"notShaped":null,"waiting":0,"rxPdus":null,)"
        R"("txPdus":null,"refusedJoins":null,"malformed":null,"droppedRegistrations":null})");
}

TEST(ShowVlans, TellsWhatIsConfiguredAndWhatIsAskedFor) {
    ShownBridge b{{"swp1", "swp2", "swp3"}};
    b.bridge.vlanDel(2, "swp2");
    b.bridge.vlanDel(2, "swp3");
    b.bridge.start();
    b.bridge.mvrpStart();
    b.bridge.mvrpConfig->intfEnableIs(IntfId{"swp3"}, false);
    b.loop.runFor(1s);  // the LeaveAll with which ports start would age out what is said before it
    // JoinMt of VLANs 2 and 3.
    b.bridge.mvrpPorts().deliver(IntfId{"swp2"}, {0, 1, 2, 0, 2, 0, 2, 0x81, 0, 0, 0, 0});
    b.loop.runFor(1s);
    b.bridge.vlanMembers->portIs(IntfId{"swp2"})->problemIs("cannot join VLAN 7: no room");
    EXPECT_EQ(b.text(Show::vlans()), R"(PORT  CARRIES  MVRP  CONFIGURED  ASKED FOR  REFUSED  DECLARED
swp1  2        on    2           -          -        2
swp2  2        on    -           2          3        2
    cannot join VLAN 7: no room
swp3  -        off   -           -          -        -
)");
    EXPECT_EQ(
        json(b.value(Show::vlans()), {"swp1"}),
        R"({"carries":"2","mvrp":"on","fixed":"2","registered":null,"refused":null,"declared":"2","problem":null})");
}

TEST(ShowPorts, TellsDomainsAndCounters) {
    ShownBridge b{{"swp1", "swp2"}};
    b.bridge.cliConfig->srPvidIs(IntfId{"swp2"}, 7);
    EXPECT_EQ(json(b.value(Show::domain()), {"swp2"}),
              R"({"A":{"state":null,"priority":3,"srPvid":7},"B":{"state":null,"priority":2,"srPvid":7}})");
    b.bridge.status->intfStatusIs(IntfId{"swp1"}, 0)->rxCountersIs(Msrp::MsrpCounter::listenerReady, 1);
    Mrp::MrpCounts counts{.txPdus = 13};
    counts.malformed[static_cast<std::size_t>(Mrp::Malformed::valuePastRange)] = 3;
    b.bridge.mrpStatus->intfIs(IntfId{"swp1"})->add(counts);
    b.record<Linux::PacketStatus>("linux/packets")->intfIs(IntfId{"swp2"})->sourceIs([] {
        return Linux::PortCounters{.receiveDropped = 4};
    });
    EXPECT_EQ(b.text(Show::counters()), R"(PORT  COUNTER                    RX  TX
swp1  listenerReady              1   0
swp1  PDUs                       0   13
swp1  malformed: valuePastRange  3   0
swp2  frames the kernel dropped  4   0
)");
    // As a value, what is zero stands there as well.
    constexpr std::size_t names =
        Msrp::msrpCounterNames.size() + Mrp::eventNames.size() + Mrp::malformedNames.size() + 6;
    for (const char* port : {"swp1", "swp2"})
        EXPECT_EQ(Show::membersOf(Show::at(b.value(Show::counters()), {port})).size(), names) << port;
}

TEST(ShowStream, IsNamedInEitherForm) {
    EXPECT_EQ(Show::parseStream("0x1122334455FF0001"), 0x1122334455FF0001U);
    EXPECT_EQ(Show::parseStream("11:22:33:44:55:ff/1"), 0x1122334455FF0001U);
    for (const char* bad : {"", "1", "11:22:33:44:55:ff", "11:22:33:44:55/1", "11:22:33:44:55:ff/65536"})
        EXPECT_EQ(Show::parseStream(bad), std::nullopt) << bad;
}

TEST(ShowLog, TellsTheLastLinesAndHowOldTheyAre) {
    ShownBridge b{{}};
    const auto log = b.record<Runtime::RecentLog>("log");
    const auto add = [&](const char* text) {
        log->add(Runtime::seconds(b.loop.now()), Runtime::LogLevel::notice, text);
    };
    for (std::size_t i = 0; i < Runtime::RecentLog::capacity; ++i) add("a");
    b.loop.runFor(27h);
    add("b");
    b.loop.runFor(9s);
    const std::string text = b.text(Show::log());
    EXPECT_EQ(text.substr(text.size() - 34), "1d03h  notice  a\n9s     notice  b\n");
    EXPECT_EQ(Show::membersOf(Show::at(b.value(Show::log()), {"line"})).size(), Runtime::RecentLog::capacity);
    EXPECT_EQ(Show::at(b.value(Show::log()), {"line", "1001", "text"}), State::Value{"b"});
}

}  // namespace
