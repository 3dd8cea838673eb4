/// Explanations made from the records of whole bridges: what their agents decided, and what is said of it.
#include "Control/Json.h"
#include "Linux/records/Config.h"
#include "Linux/records/GroupStatus.h"
#include "Msrp/types/Format.h"
#include "Show/Explain.h"
#include "Show/FailureCodes.h"
#include "Show/PortJudge.h"
#include "State/Difference.h"
#include "tests/control/ShownBridge.h"

#include <gtest/gtest.h>
#include <set>
#include <tuple>

namespace {

using namespace std::chrono_literals;
using Bridging::Topology::PortState;
using Msrp::ListenerState;

constexpr std::uint64_t theStream = 0x1122334455FF0001;

struct ExplainedBridge : ShownBridge {
    using ShownBridge::ShownBridge;

    /// All ports inside the domain, and a talker on the first of them.
    void core(const Sim::Talker& talker = {.id = theStream}) {
        bridge.start();
        loop.runFor(1s);
        for (const auto& [port, peer] : peers) says(port, Sim::domains());
        says("swp1", {Sim::advertise(talker)});
    }
    std::string explained(const std::string& port = "", std::uint64_t stream = theStream) {
        return Show::explainText(explanation(port, stream));
    }
    Show::Explanation explanation(const std::string& port, std::uint64_t stream = theStream) {
        const auto s = snapshot(Show::judgedRecords(),
                                [&](const Show::Snapshot& so) { return Show::explainMore(so, stream); });
        return Show::explain(s, names, stream, port);
    }
    /// What is said of the talker's side.
    std::string talker(std::uint64_t stream = theStream) {
        const std::string all = explained("", stream);
        const auto from = all.find("\ntalker") + 1;
        return all.substr(from, all.find("to swp", from) - from);
    }
    /// What is said of one port.
    std::string at(const std::string& port) {
        const std::string all = explained(port);
        return all.substr(all.find("to " + port + ':'));
    }
    Show::BridgeNames names;
};

TEST(Explain, TellsOfEveryPortFromTheWireUp) {
    ExplainedBridge b{{"swp1", "swp2", "swp3", "swp4", "swp5", "swp6", "swp7", "swp8", "swp9"}};
    b.startWithFaults();
    for (const char* port : {"swp1", "swp2", "swp3", "swp8"}) b.says(port, Sim::domains());
    b.says("swp7", {Sim::domain(Msrp::SrClassId::SrClassB, 2)});
    b.says("swp9", {Sim::domain(Msrp::SrClassId::SrClassA, 2)});
    b.says("swp1", {Sim::advertise({.id = theStream, .latency = 500})});
    b.says("swp2", {Sim::listener(theStream, ListenerState::Ready)});
    b.loop.runFor(80s);
    b.says("swp3", {Sim::listener(theStream, ListenerState::Ready)});
    b.loop.runFor(12s);
    b.bridge.config->intfEnableIs(IntfId{"swp10"}, true);
    EXPECT_EQ(b.names.read("# who is who\n11:22:33:44:55:ff mic 1\n02:00:00:00:00:01\tstage\n"), "");
    EXPECT_EQ(b.explained(), R"(stream 11:22:33:44:55:ff/1 (0x1122334455FF0001) of mic 1
    to 91:e0:f0:00:00:01, VLAN 2, class A, priority 3
    needs 9088 kbps: 1 x 100 octets in 125 us
talker at swp1: declared, taken and passed on since 12s
to swp2: carried since 1m33s
    why     listener Ready; 9088 kbps reserved
to swp3: insufficient bandwidth (code 1) since 12s
    why     both classes together may have 75 per cent of the 10M link, 7500 kbps; 0 are reserved, 9088 more are needed, 1588 are missing, waiting for 12s, first in line
    whose   this bridge, stage
    mend    srClassABandwidthPercent 91 or more (over 75 per cent for both, other traffic and the latency of streams suffer)
    or      a link of 100M or more (but 2.5G and 5G)
to swp4: the peer does not speak MSRP
    why     not one frame of MSRP has come in on the port since its counters began
    whose   the peer at swp4
    mend    MSRP (stream reservation, SRP) at the peer; where it has none, another peer
to swp5: link down
    whose   the cable, or the peer at swp5
    mend    look at the cable and at the far end
    or      ip link set swp5 up, if it was taken down here
to swp6: blocked by the spanning tree
    why     streams follow the tree; what is behind the port is reached on another way, or by nobody
    whose   this bridge, stage
    mend    nothing, where the network has a loop; else the tree's costs and priorities, or the port that is down on the way that the tree prefers
to swp7: the peer does not offer class A
    why     one frame of MSRP has come in, and none that still counts declares a Domain of class A
    whose   the peer at swp7
    mend    class A at the peer, with priority 3
to swp8: not a port of bridge br0
    whose   this bridge, stage
    mend    ip link set swp8 master br0
to swp9: outside the domain of class A (code 8) since 1m37s
    why     this bridge gives class A priority 3, the peer gives it priority 2: its frames would lose their queue on the way
    whose   the peer at swp9, or this bridge: they have to agree
    mend    priority 3 for class A at the peer
to swp10: no interface
    why     MSRP is enabled on swp10, and there is no interface of that name
    whose   this bridge, stage
    mend    make the interface, or name the right one
    or      msrpctl set msrp/config intfEnable/swp10 null
)");
}

TEST(Explain, TellsWhyATalkerFails) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.core();
    const auto says = [&](const Sim::Talker& talker) {
        b.says("swp1", {Sim::advertise(talker)});
        return b.talker(talker.id);
    };
    EXPECT_EQ(b.talker(), R"(talker at swp1: declared, taken and passed on since 0s
)");
    EXPECT_EQ(says({.id = theStream, .macDa = 0x91'e0'f0'00'00'07, .maxFrameSize = 200, .rank = 0}),
              R"(talker at swp1: changed value for a registered stream id (code 16) since 1s
    why     listeners have reserved for what was declared first, and now it is address 91:e0:f0:00:00:07 instead of 91:e0:f0:00:00:01, rank 0 instead of 1, MaxFrameSize 200 instead of 100
    whose   the talker 11:22:33:44:55:ff
    mend    withdraw the stream at its talker and declare it anew, so that listeners reserve for that
    or      declare again what was declared first
)");
    EXPECT_EQ(says({.id = theStream, .latency = 900}),
              R"(talker at swp1: reported latency has changed (code 7) since 1s
    why     listeners have reserved for what was declared first, and now it is AccumulatedLatency 900 ns instead of 0
    whose   the talker 11:22:33:44:55:ff, or a bridge before this one
    mend    withdraw the stream at its talker and declare it anew, so that listeners reserve for that
    or      declare again what was declared first
)");
    EXPECT_EQ(says({.id = 5}), R"(talker at swp1: stream destination address already in use (code 5) since 0s
    why     in VLAN 2 the address 91:e0:f0:00:00:01 belongs to stream 11:22:33:44:55:ff/1, waiting for 0s, first in line
    whose   the talker 00:00:00:00:00:00, or that of the other stream
    held by 11:22:33:44:55:ff/1
    mend    another destination address for this stream, at its talker, after it has withdrawn the stream (MAAP gives them out)
    or      end stream 11:22:33:44:55:ff/1
)");
    EXPECT_EQ(says({.id = 6, .macDa = 0x91'e0'f0'00'00'06, .maxFrameSize = 1501}),
              R"(talker at swp1: MaxFrameSize is too large for media (code 14) since 0s
    why     its frames have up to 1501 octets, and maxFrameSizeLimit is 1500
    whose   the talker, or the limit of this bridge
    mend    smaller frames, more of them in an interval, after it has withdrawn the stream
)");
    b.bridge.cliConfig->maxFrameSizeLimitIs(1000);
    EXPECT_EQ(says({.id = 16, .macDa = 0x91'e0'f0'00'00'16, .maxFrameSize = 1400}),
              R"(talker at swp1: MaxFrameSize is too large for media (code 14) since 0s
    why     its frames have up to 1400 octets, and maxFrameSizeLimit is 1000
    whose   the talker, or the limit of this bridge
    mend    smaller frames, more of them in an interval, after it has withdrawn the stream
    or      maxFrameSizeLimit 1400 or more
)");
    EXPECT_EQ(says({.id = 7, .macDa = 0x91'e0'f0'00'00'08, .vlan = 9}),
              R"(talker at swp1: no VLAN 9 on this switch (code 17) since 0s
    why     the stream's frames carry VLAN 9, which no port of the switch has
    whose   this bridge
    mend    msrpctl set bridging/config vlanConfig/9/intf/swp1 '{"tagged":true}'
    or      VLAN 2 for the stream, at its talker, after it has withdrawn the stream: that is what the port declares
)");
    b.record<Linux::GroupStatus>("linux/groups")->tableSizeIs(512);
    b.bridge.refusals->groupIs({VlanId{2}, EthAddr::fromNumber(0x91'e0'f0'00'00'09)},
                               "the bridge's multicast table is full");
    EXPECT_EQ(says({.id = 9, .macDa = 0x91'e0'f0'00'00'09}),
              R"(talker at swp1: cannot store destination address (code 12) since 0s
    why     the kernel has not taken the stream's forwarding entry: the bridge's multicast table is full; 0 groups are in a table for 512
    whose   the kernel of this machine
    mend    groupTableSize 1024 in linux/config, from the next start; at once: ip link set BRIDGE type bridge mcast_hash_max 1024
    or      fewer groups in the bridge (bridge mdb show)
)");
    b.bridge.refusals->groupDel({VlanId{2}, EthAddr::fromNumber(0x91'e0'f0'00'00'09)});
    b.loop.runFor(1s);
    b.bridge.vlanIs(2, "swp1", false);
    b.loop.runFor(1s);
    EXPECT_EQ(b.talker(9), R"(talker at swp1: VLAN 2 goes out without a tag (code 18) since 2s
    why     the priority of its frames is in the tag, so streams need it
    whose   this bridge
    mend    msrpctl set bridging/config vlanConfig/2/intf/swp1 '{"tagged":true}'
)");
    b.bridge.vlanIs(2, "swp1", true);
    b.says("swp1", {Sim::domain(Msrp::SrClassId::SrClassA, 2)});
    EXPECT_EQ(b.talker(9), R"(talker at swp1: outside the domain of class A (code 8) since 3s
    why     this bridge gives class A priority 3, the peer gives it priority 2: its frames would lose their queue on the way
    whose   the peer at swp1, or this bridge: they have to agree
    mend    priority 3 for class A at the peer
)");
}

TEST(Explain, TellsWhyATalkerIsNotTaken) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.bridge.start();
    b.loop.runFor(1s);
    const auto says = [&](const Sim::Talker& talker) {
        b.says("swp1", {Sim::advertise(talker)});
        return b.talker(talker.id);
    };
    EXPECT_EQ(b.talker(1), R"(talker: no talker
    why     no port has a declaration of a talker for this stream
    whose   the talker 00:00:00:00:00:00
    mend    let it declare the stream; if it does, look at the bridges between it and here, and at show domain
)");
    EXPECT_EQ(says({.id = 1}), R"(talker: declared on swp1, and not taken since 0s
    why     the peer does not offer class A: one frame of MSRP has come in, and none that still counts declares a Domain of class A
    whose   the peer at swp1
    mend    class A at the peer, with priority 3
)");
    b.says("swp1", Sim::domains());
    b.says("swp2", Sim::domains());
    EXPECT_EQ(says({.id = 2, .vlan = 4095}), R"(talker: declared on swp1, and not taken since 1s
    why     VLAN 4095 is not from 1 to 4094
    whose   the talker 00:00:00:00:00:00
    mend    VLAN 2 at the talker: that is what the port declares
)");
    EXPECT_EQ(says({.id = 3, .macDa = 0x02'00'00'00'00'01}),
              R"(talker: declared on swp1, and not taken since 0s
    why     its destination 02:00:00:00:00:01 is no group address
    whose   the talker 00:00:00:00:00:00
    mend    an address from 91:e0:f0:00:00:00 to 91:e0:f0:ff:ff:ff at the talker
)");
    EXPECT_EQ(says({.id = 4, .macDa = 0x01'00'5e'00'00'01}),
              R"(talker: declared on swp1, and not taken since 1s
    why     its destination 01:00:5e:00:00:01 is not one for streams
    whose   the talker 00:00:00:00:00:00
    mend    an address from 91:e0:f0:00:00:00 to 91:e0:f0:ff:ff:ff at the talker
)");
    EXPECT_EQ(says({.id = 5, .priority = 5}), R"(talker: declared on swp1, and not taken since 0s
    why     its priority 5 is that of no class: class A has 3, class B 2
    whose   the talker 00:00:00:00:00:00
    mend    priority 3 or 2 at the talker
)");
    b.says("swp2", {Sim::advertise({.id = 1}), Sim::listener(6, ListenerState::Ready)});
    EXPECT_EQ(b.explained("swp2", 1), R"(stream 00:00:00:00:00:00/1 (0x1)
    to 91:e0:f0:00:00:01, VLAN 2, class A, priority 3
    needs 9088 kbps: 1 x 100 octets in 125 us
talker at swp1: declared, taken and passed on since 3s
to swp2: declared on swp2, and not taken since 3s
    why     the same stream id comes from a talker at swp1, and who is first has it
    whose   the talker 00:00:00:00:00:00
    mend    another stream id for one of the two
    or      if the talker has moved: nothing, its old place is given up within a second
)");
    EXPECT_EQ(b.explained("swp2", 6), R"(stream 00:00:00:00:00:00/6 (0x6)
talker: no talker
    why     no port has a declaration of a talker for this stream
    whose   the talker 00:00:00:00:00:00
    mend    let it declare the stream; if it does, look at the bridges between it and here, and at show domain
to swp2: no talker
    why     a listener asks (Ready), and the talker's side says why not
    whose   the talker 00:00:00:00:00:00
)");
    b.says("swp1", {Sim::listener(1, ListenerState::Ready)});
    EXPECT_EQ(b.explained("swp1", 1), R"(stream 00:00:00:00:00:00/1 (0x1)
    to 91:e0:f0:00:00:01, VLAN 2, class A, priority 3
    needs 9088 kbps: 1 x 100 octets in 125 us
talker at swp1: declared, taken and passed on since 4s
to swp1: a listener behind the talker's own port
    why     the stream passes there without this bridge, which sends nothing back to where it came from
    whose   the listener behind swp1
    mend    nothing, where both are behind one hub; else look for a loop
)");
}

TEST(Explain, NamesTheBridgeThatFailureComesFrom) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.core();
    EXPECT_EQ(b.names.read("\n02:00:00:00:00:99\n"),
              "line 2: \"02:00:00:00:00:99\" is not like \"00:11:22:33:44:55 name\"");
    EXPECT_EQ(b.names.read("02:00:00:00:00:99 hall\n"), "");
    const auto lldp = Control::parseJson(
        R"({"lldp": {"interface": [{"swp1": {"chassis": {"balcony": {"id": {"type": "mac", "value": "02:00:00:00:00:98"}}},
            "port": {"id": {"type": "ifname", "value": "eth0"}}}}, {"swp2": {"chassis": {"id": {"type": "mac", "value": "x"}}}}]}})",
        Control::JsonComments::refused, Control::JsonArrays::numbered);
    b.names.neighboursAre(lldp.value);
    b.names.neighboursAre(
        Control::parseJson(
            R"({"lldp": {"interface": {"swp2": {"chassis": {"bar\u001b[": {"id": {"type": "mac", "value": "02:00:00:00:00:97"}}}}}}})")
            .value);
    b.names.neighboursAre(
        Control::parseJson(
            R"({"lldp": {"interface": {"swp3": {"chassis": {"Zo\u00eb\u009b2JZo\u00eb, the bridge with a name that has its end in an \u00eb,\u00eb\u00eb\u00eb\u00eb\u00eb": {}}}}}})")
            .value);
    EXPECT_EQ(b.names.behind("swp2") + b.names.of(0x02'00'00'00'00'97, "swp1") + ' ' + b.names.behind("swp3"),
              "bar?[ Zoë??2JZoë, the bridge with a name that has its end in an ë,ëëëë");
    std::set<std::string> texts;
    for (std::uint8_t code = 1; code <= 20; ++code) {
        const bool near = code % 2 == 0;
        b.says("swp1", {Sim::failed({.id = theStream}, code, 0x8000'02'00'00'00'00'98 + (near ? 0 : 1))});
        const std::string text = b.talker();
        EXPECT_NE(text.find("(code " + std::to_string(code) + ")"), std::string::npos) << text;
        EXPECT_NE(text.find(near ? "bridge balcony (8000.02:00:00:00:00:98)"
                                 : "bridge hall (8000.02:00:00:00:00:99)"),
                  std::string::npos)
            << text;
        // Its own explanation, and its own cure but for those that have the same.
        texts.insert(text.substr(text.find("why"), text.find("; found by") - text.find("why")));
    }
    EXPECT_EQ(texts.size(), 20U);
    b.says("swp2", {Sim::listener(theStream, ListenerState::Ready)});
    EXPECT_EQ(b.explained(), R"(stream 11:22:33:44:55:ff/1 (0x1122334455FF0001)
    to 91:e0:f0:00:00:01, VLAN 2, class A, priority 3
    needs 9088 kbps: 1 x 100 octets in 125 us
talker at swp1: a failure that is not known here (code 20) since 0s
    why     the code has no meaning in IEEE 802.1Q as this bridge knows it; found by bridge balcony (8000.02:00:00:00:00:98), heard from balcony, the neighbour at swp1
    whose   bridge balcony (8000.02:00:00:00:00:98)
    mend    look at the bridge that gave it
to swp2: a failure that is not known here (code 20) since 0s
    why     failed for all ports where it comes in, see the talker
    whose   bridge balcony (8000.02:00:00:00:00:98)
)");
    b.says("swp1", {Sim::failed({.id = theStream}, 1, 0x8000'02'00'00'00'00'01)});
    EXPECT_EQ(b.talker(), R"(talker at swp1: insufficient bandwidth (code 1) since 1s
    why     a port on the way has no bandwidth left for streams of both classes together; found by bridge 8000.02:00:00:00:00:01, heard from balcony, the neighbour at swp1
    whose   this bridge: its own word has come back to it
    mend    look for a loop between the talker's port and another one
)");
}

/// What is seen only for a moment, or in a standby: the records are made to say it.
TEST(Explain, TellsOfEachRuleThatAnAgentAtWorkSoonLeaves) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.core();
    const auto good =
        b.snapshot(Show::judgedRecords(), [](const auto& s) { return Show::explainMore(s, theStream); });
    const std::string stream = "registeredStreams/" + State::hexText(theStream) + '/';
    std::string told;
    for (const auto& [record, path, value] : std::vector<std::tuple<std::string, std::string, State::Value>>{
             {"msrp/status", stream + "talkerFailureCode/swp2", std::uint64_t{1}},
             {"msrp/status", stream + "listenerState/swp2", "Ready"},
             {"msrp/status", stream + "talkerState/swp2", "None"},
             {"msrp/status", stream + "talkerState/swp1", "None"},
             {"msrp/status", stream + "talkerFailureCode/swp1", std::uint64_t{6}},
             {"msrp/status", "intfStatus/swp2/srClassState/SrClassA", "NotSupported"},
             {"msrp/config", "intfEnable/swp2", false},
             {"stp/status", "mode", "Rstp"}}) {
        Show::Snapshot s = good;
        std::vector<std::string> where{""};
        for (const char c : path) {
            if (c == '/') {
                where.emplace_back();
            } else {
                where.back() += c;
            }
        }
        State::put(s.records[record], where, value);
        const auto e = Show::explain(s, b.names, theStream, "swp2");
        const auto& port = e.ports.front().second;
        told += Runtime::concat(path.substr(path.rfind('/', path.rfind('/') - 1) + 1), ": ",
                                State::enumText(e.talker.rule), ", ", State::enumText(port.rule), ' ',
                                port.code, " of ", port.who, ": ", port.what, ": ", port.why, '\n');
    }
    EXPECT_EQ(
        told,
        R"(talkerFailureCode/swp2: advertised, gone 1 of : insufficient bandwidth: nothing of this is in the way any more; this bridge looks again when the talker repeats its declaration
listenerState/swp2: advertised, underWay 0 of this bridge: asked for, not carried yet: the listener says Ready, nothing is in the way
talkerState/swp2: advertised, notDeclared 0 of this bridge: not declared to the port: the declaration is under way
talkerState/swp1: notDeclared, noListener 0 of the listener behind swp2: no listener: the talker is declared to the port, and nobody there asks for the stream
talkerFailureCode/swp1: otherCode, otherCode 6 of this bridge: preempted by a stream of higher rank: failed for all ports where it comes in, see the talker
srClassState/SrClassA: advertised, notRunning 0 of this bridge: MSRP does not run on the port yet: it is starting over, or this agent is in standby
intfEnable/swp2: advertised, notEnabled 0 of this bridge: MSRP is not enabled on the port: 
mode: advertised, vlanBlocked 17 of this bridge: VLAN 2 is blocked: the spanning tree that carries VLAN 2 is not known
)");
}

TEST(Explain, TellsWhatBecomesOfAPort) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.core();
    const IntfId port{"swp2"};
    std::string told;
    const auto tell = [&] {
        b.loop.runFor(1s);
        told += b.at("swp2");
    };
    b.bridge.vlanIs(2, "swp2", false);
    tell();
    b.bridge.vlanDel(2, "swp2");
    tell();
    b.bridge.vlanIs(2, "swp2", true);
    b.bridge.refusals->portIs(port, "half duplex");
    tell();
    b.bridge.refusals->portDel(port);
    b.says("swp2", {Sim::listener(theStream, ListenerState::AskingFailed)});
    tell();
    b.says("swp2", {Sim::listener(theStream, ListenerState::Ready)});
    b.record<Linux::GroupStatus>("linux/groups")
        ->failedIs("2/91:e0:f0:00:00:01/swp2", "No space left on device");
    tell();
    b.record<Linux::GroupStatus>("linux/groups")->failedDel("2/91:e0:f0:00:00:01/swp2");
    b.record<Linux::GroupStatus>("linux/groups")->notOffloadedIs("2/91:e0:f0:00:00:01/swp2");
    tell();
    b.says("swp2", {Sim::domain(Msrp::SrClassId::SrClassA, 2)});
    tell();
    b.bridge.time->askedIs(true);
    tell();
    b.bridge.time->askedIs(false);
    b.bridge.cliConfig->srClassASupportedIs(false);
    b.loop.runFor(2s);
    b.says("swp1", {Sim::advertise({.id = theStream})});
    tell();
    EXPECT_EQ(told, R"(to swp2: VLAN 2 goes out without a tag (code 18) since 1s
    why     the priority of its frames is in the tag, so streams need it
    whose   this bridge
    mend    msrpctl set bridging/config vlanConfig/2/intf/swp2 '{"tagged":true}'
to swp2: not in VLAN 2 (code 17) since 2s
    why     the stream's frames carry VLAN 2, and the port is no member of it
    whose   this bridge
    mend    msrpctl set bridging/config vlanConfig/2/intf/swp2 '{"tagged":true}'
to swp2: its queues cannot be shaped (code 2) since 1s
    why     the port cannot give streams their bandwidth: half duplex
    whose   the kernel of this machine, or what is set up in it
    mend    full duplex on both ends of the link
to swp2: the listener cannot receive it since 1s
    why     it asks with Asking Failed: it, or a bridge before it, has no way to take the stream
    whose   the listener behind swp2
    mend    look there: explain on that bridge, or the listener's own state
to swp2: reserved, and not forwarded since 1s
    why     the kernel has not taken the stream's forwarding entry: No space left on device
    whose   the kernel of this machine
    mend    take that reason away; msrpctl audit --repair tries again at once
to swp2: reserved, and not forwarded since 2s
    why     the kernel has the forwarding entry, and the switch chip has not taken it
    whose   the driver of the switch chip
    mend    room in the chip's table: fewer groups; the driver's messages (dmesg) say more
to swp2: outside the domain of class A (code 8) since 11s
    why     this bridge gives class A priority 3, the peer gives it priority 2: its frames would lose their queue on the way
    whose   the peer at swp2, or this bridge: they have to agree
    mend    priority 3 for class A at the peer
to swp2: no common time
    why     the port keeps no common time with its peer (IEEE 802.1AS): its clock is not told of
    whose   the peer at swp2, or the ptp4l of this bridge
    mend    gPTP on both ends of the link, in ptp4l here (-i swp2) and at the peer
    or      no gptp in linux/config, from the next start, where streams may go without common time
to swp2: class A is switched off
    whose   this bridge
    mend    msrpctl set msrp/cliConfig srClassASupported true
)");
}

TEST(Explain, TellsWhoHasTheBandwidthAndWhatWouldBeEnough) {
    ExplainedBridge b{{"swp1", "swp2"}};
    b.bridge.cliConfig->srClassABandwidthPercentIs(9);
    b.bridge.cliConfig->srClassBBandwidthPercentIs(50);
    b.core();
    for (std::uint64_t n = 1; n <= 10; ++n) {
        b.says("swp1", {Sim::advertise({.id = n, .macDa = 0x91'e0'f0'00'01'00 + n})});
        b.says("swp2", {Sim::listener(n, ListenerState::Ready)});
    }
    b.loop.runFor(12s);
    b.says("swp2", {Sim::listener(theStream, ListenerState::Ready)});
    b.loop.runFor(30s);
    EXPECT_EQ(b.at("swp2"), R"(to swp2: insufficient bandwidth for the traffic class (code 3) since 30s
    why     class A may have 9 per cent of the 1G link, 90000 kbps; 81792 are reserved, 9088 more are needed, 880 are missing, waiting for 30s at place 2 behind 00:00:00:00:00:00/10
    whose   this bridge
    held by 00:00:00:00:00:00/1 (9088 kbps), 00:00:00:00:00:00/2 (9088 kbps), 00:00:00:00:00:00/3 (9088 kbps), 00:00:00:00:00:00/4 (9088 kbps), 00:00:00:00:00:00/5 (9088 kbps), and 4 more (36352 kbps)
    mend    srClassABandwidthPercent 10 or more
    or      a link of 10G or more
    or      end streams of 880 kbps on the port, of those that hold it
)");
    EXPECT_EQ(
        Control::jsonText(Show::at(Show::explainValue(b.explanation("swp2")), {"ports", "swp2"})),
        R"({"good":false,"rule":"classBandwidth","code":3,"what":"insufficient bandwidth for the traffic class","why":"class A may have 9 per cent of the 1G link, 90000 kbps; 81792 are reserved, 9088 more are needed, 880 are missing, waiting for 30s at place 2 behind 00:00:00:00:00:00/10","whose":"bridge","who":"this bridge","bridge":null,"since":30.5,"mend":{"1":{"text":"srClassABandwidthPercent 10 or more","record":"msrp/cliConfig","set":{"srClassABandwidthPercent":10}},"2":{"text":"a link of 10G or more","record":null,"set":{}},"3":{"text":"end streams of 880 kbps on the port, of those that hold it","record":null,"set":{}}},"holders":{"0x1":{"stream":"00:00:00:00:00:00/1","kbps":9088},"0x2":{"stream":"00:00:00:00:00:00/2","kbps":9088},"0x3":{"stream":"00:00:00:00:00:00/3","kbps":9088},"0x4":{"stream":"00:00:00:00:00:00/4","kbps":9088},"0x5":{"stream":"00:00:00:00:00:00/5","kbps":9088}},"moreHolders":{"streams":4,"kbps":36352},"waiting":{"age":30.5,"place":2,"behind":"0xA","heldBy":null,"missingKbps":880},"inputs":{"link":"up","speed":"1G","portState":"Forwarding","classState":"Core","priority":3,"peerPriority":3,"vlan":2,"vlanState":"carried","neededKbps":9088,"allowedKbps":90000,"usedKbps":81792,"allowedBothKbps":590000,"usedBothKbps":81792,"missingKbps":880,"tableUsed":null,"tableSize":null,"tableRoom":null,"kernel":null}})");
}

TEST(Explain, JudgesByWhatTheAgentJudgesBy) {
    ExplainedBridge b{{"swp1", "swp2", "swp3", "swp4"}};
    b.bridge.speedIs("swp2", Interface::Speed::speed100Mbps);
    b.bridge.cliConfig->srClassABandwidthPercentIs(50);
    b.bridge.cliConfig->srClassBBandwidthPercentIs(25);
    b.core();
    b.says("swp3", {Sim::domain(Msrp::SrClassId::SrClassA, 3, Mrp::Event::Lv)});
    b.loop.runFor(2s);
    std::string told;
    const auto tell = [&](const std::string& port, std::uint64_t stream) {
        const std::string all = b.explained(port, stream);
        told += all.substr(all.find("to " + port + ':'));
    };
    const auto carry = [&](const Sim::Talker& talker) {
        b.says("swp1", {Sim::advertise(talker)});
        b.says("swp2", {Sim::listener(talker.id, ListenerState::Ready)});
    };
    // Class A is full, and both classes are.
    for (std::uint64_t n = 1; n <= 5; ++n) carry({.id = n, .macDa = 0x91'e0'f0'00'01'00 + n});
    carry({.id = 6, .macDa = 0x91'e0'f0'00'01'06, .maxFrameSize = 676, .priority = 2});
    carry({.id = 7, .macDa = 0x91'e0'f0'00'01'07});
    tell("swp2", 7);
    // Code 1 was told; without the other stream it is class A's own share.
    b.says("swp1",
           {Sim::advertise({.id = 6, .macDa = 0x91'e0'f0'00'01'06, .maxFrameSize = 676, .priority = 2},
                           Mrp::Event::Lv)});
    b.loop.runFor(2s);
    tell("swp2", 7);
    // Somebody else's declaration takes nothing away from who is carried.
    b.says("swp2", {Sim::advertise({.id = 1, .macDa = 0x91'e0'f0'00'01'01})});
    tell("swp2", 1);
    // A failure without a code, one of a VLAN that is none, and one of a stream that is there.
    b.says("swp1", {Sim::failed({.id = 8, .macDa = 0x91'e0'f0'00'01'08}, 0, 0x8000'02'00'00'00'00'98)});
    tell("swp2", 8);
    b.says("swp1", {Sim::failed({.id = 9, .vlan = 4095}, 1, 0x8000'02'00'00'00'00'98)});
    told += b.talker(9);
    b.says("swp4", {Sim::failed({.id = 5, .macDa = 0x91'e0'f0'00'01'05}, 1, 0x8000'02'00'00'00'00'98)});
    tell("swp4", 5);
    // Declared anew in another VLAN.
    b.says("swp1", {Sim::advertise({.id = 4, .macDa = 0x91'e0'f0'00'01'04, .vlan = 9})});
    told += b.talker(4);
    // Without a talker that is taken: of class B, and of none that is known.
    b.says("swp1", {Sim::advertise({.id = 10, .macDa = 0x02'00'00'00'00'01, .priority = 2})});
    tell("swp3", 10);
    tell("swp3", 11);
    EXPECT_EQ(told, R"(to swp2: insufficient bandwidth (code 1) since 0s
    why     both classes together may have 75 per cent of the 100M link, 75000 kbps; 68416 are reserved, 9088 more are needed, 2504 are missing; of these class A may have 50 per cent, 50000 kbps, and has 45440: for it 4528 are missing, waiting for 0s, first in line
    whose   this bridge
    held by 00:00:00:00:00:00/1 (9088 kbps), 00:00:00:00:00:00/2 (9088 kbps), 00:00:00:00:00:00/3 (9088 kbps), 00:00:00:00:00:00/4 (9088 kbps), 00:00:00:00:00:00/5 (9088 kbps)
    mend    srClassABandwidthPercent 55 or more (over 75 per cent for both, other traffic and the latency of streams suffer)
    or      a link of 1G or more (but 2.5G and 5G)
    or      end streams of 4528 kbps on the port, of those that hold it
to swp2: insufficient bandwidth (code 1) since 3s
    why     now it would be insufficient bandwidth for the traffic class (code 3): class A may have 50 per cent of the 100M link, 50000 kbps; 45440 are reserved, 9088 more are needed, 4528 are missing, waiting for 3s, first in line
    whose   this bridge
    held by 00:00:00:00:00:00/1 (9088 kbps), 00:00:00:00:00:00/2 (9088 kbps), 00:00:00:00:00:00/3 (9088 kbps), 00:00:00:00:00:00/4 (9088 kbps), 00:00:00:00:00:00/5 (9088 kbps)
    mend    srClassABandwidthPercent 55 or more (over 75 per cent for both, other traffic and the latency of streams suffer)
    or      a link of 1G or more (but 2.5G and 5G)
    or      end streams of 4528 kbps on the port, of those that hold it
to swp2: carried since 9s
    why     listener Ready; 9088 kbps reserved
Behind swp2 somebody declares a stream of the same id, which is not taken: who is first has it.
to swp2: a failure that is not known here since 0s
    why     failed for all ports where it comes in, see the talker
    whose   bridge 8000.02:00:00:00:00:98
talker: declared on swp1, and not taken since 1s
    why     VLAN 4095 is not from 1 to 4094
    whose   the talker 00:00:00:00:00:00
    mend    VLAN 2 at the talker: that is what the port declares
to swp4: declared on swp4, and not taken since 0s
    why     the same stream id comes from a talker at swp1, and who is first has it
    whose   the talker 00:00:00:00:00:00
    mend    another stream id for one of the two
    or      if the talker has moved: nothing, its old place is given up within a second
talker at swp1: no VLAN 9 on this switch (code 17) since 0s
    why     the stream's frames carry VLAN 9, which no port of the switch has
    whose   this bridge
    mend    msrpctl set bridging/config vlanConfig/9/intf/swp1 '{"tagged":true}'
    or      VLAN 2 for the stream, at its talker, after it has withdrawn the stream: that is what the port declares
to swp3: no talker
    why     the talker's side says why
    whose   the talker 00:00:00:00:00:00
to swp3: no talker
    why     the talker's side says why
    whose   the talker 00:00:00:00:00:00
)");
}

}  // namespace
