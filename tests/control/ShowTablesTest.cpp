#include "Control/Json.h"
#include "Linux/Dataplane.h"
#include "Linux/ports/PacketRecords.h"
#include "Runtime/RecentLog.h"
#include "Runtime/VirtualLoop.h"
#include "Show/Streams.h"
#include "Show/Views.h"
#include "Sim/Peer.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Bridging::Topology::PortState;
using Msrp::ListenerState;
using Sim::Talker;

/// The records of a simulated switch, and beside them those of the kernel's side of it.
struct ShownBridge {
    explicit ShownBridge(const std::vector<std::string>& ports) : bridge{loop, ports} {
        // Peers that do not repeat themselves are enough then.
        bridge.mrpConfig->leaveAllTimeIs(600'000);
        for (const std::string& port : ports) {
            peers[port] = std::make_unique<Sim::Peer>(bridge, port);
            linked->intfIs(IntfId{port}, true);
        }
    }
    void start() {
        bridge.start();
        loop.runFor(1s);
    }
    void says(const std::string& port, const std::vector<Sim::Say>& what) {
        for (const Sim::Say& say : what) peers.at(port)->say(say);
        loop.runFor(500ms);
    }
    /// As msrpctl reads it.
    Show::Snapshot snapshot(const Show::View& view) {
        Show::Snapshot s;
        s.now = Runtime::seconds(loop.now());
        for (const std::string& path : view.records)
            s.records[path] = bridge.database().entity(path)->value();
        return s;
    }
    std::string text(const Show::View& view) { return view.text(snapshot(view)); }
    State::Value value(const Show::View& view) { return view.value(snapshot(view)); }
    template <class R>
    std::shared_ptr<R> record(const char* path) {
        return bridge.database().entityIs<R>(path);
    }

    Runtime::VirtualLoop loop;
    Sim::Bridge bridge;
    std::map<std::string, std::unique_ptr<Sim::Peer>> peers;
    std::shared_ptr<Interface::EthIntfStatusDir> linked =
        record<Interface::EthIntfStatusDir>("interface/status/eth/intf");
    std::shared_ptr<Linux::Config> config = record<Linux::Config>("linux/config");
    std::shared_ptr<Linux::GroupStatus> groups = record<Linux::GroupStatus>("linux/groups");
    std::shared_ptr<Linux::CapabilityStatus> capabilities =
        record<Linux::CapabilityStatus>("linux/capabilities");
    std::shared_ptr<Linux::PacketStatus> packets = record<Linux::PacketStatus>("linux/packets");
};

TEST(ShowStreams, TellsWhoCarriesAStreamAndWhyTheOthersDoNot) {
    ShownBridge b{{"swp1", "swp2", "swp3", "swp4", "swp5", "swp6", "swp7", "swp8"}};
    EXPECT_EQ(b.text(Show::streams()), "no streams\n");
    b.bridge.stp->modeIs(Stp::Mode::Rstp);
    b.config->bridgeIs("br0");
    for (const auto& [port, peer] : b.peers) {
        if (port != "swp8") b.bridge.bridging->switchIntfConfigIs(IntfId{port});
        b.bridge.topology->topoConfigIs("Cist")
            ->topoPortConfigIs(IntfId{port})
            ->stateIs(port == "swp6" ? PortState::blocking : PortState::forwarding);
    }
    b.bridge.linkIs("swp5", false);
    b.bridge.speedIs("swp3", Interface::Speed::speed10Mbps);
    b.start();
    for (const char* port : {"swp1", "swp2", "swp3", "swp7", "swp8"}) b.says(port, Sim::domains());
    b.says("swp1", {Sim::advertise({.id = 0x1122334455FF0001, .latency = 500})});
    b.says("swp2", {Sim::listener(0x1122334455FF0001, ListenerState::Ready),
                    Sim::failed({.id = 2, .macDa = 0x91'e0'f0'00'00'02}, 3)});
    b.loop.runFor(88s);
    b.says("swp3", {Sim::listener(0x1122334455FF0001, ListenerState::Ready)});
    b.loop.runFor(12s);
    b.groups->routerPortIs(IntfId{"swp7"});
    EXPECT_EQ(b.text(Show::streams()), R"()");
    const auto snapshot = b.snapshot(Show::streams());
    EXPECT_EQ(Show::streamText(snapshot, Show::streamReports(snapshot).back()), R"()");
}

/// Who waits on swp2 for bandwidth (5 in front of 4; 6, too, but it was refused when it was declared) and for
/// an address (7 in front of 8, behind 3); the talkers' port is swp1.
struct WaitingStreams : testing::Test {
    WaitingStreams() : b{{"swp1", "swp2"}} {
        b.bridge.cliConfig->srClassABandwidthPercentIs(1);
        b.capabilities->shapingIs(IntfId{"swp1"});
        b.capabilities->shapingIs(IntfId{"swp2"})->shaperIs(Linux::Shaper::htb);
        b.start();
        b.says("swp1", Sim::domains());
        b.says("swp2", Sim::domains());
        const auto talk = [&](std::uint64_t id, std::uint64_t address) {
            return Sim::advertise({.id = id, .macDa = 0x91'e0'f0'00'00'00 + address});
        };
        b.says("swp1", {talk(3, 3), talk(4, 4), talk(5, 5)});
        for (const std::uint64_t id : {3, 5, 4}) {
            b.says("swp2", {Sim::listener(id, ListenerState::Ready)});
            b.loop.runFor(10s);
        }
        b.says("swp2", {Sim::listener(6, ListenerState::Ready)});
        for (const std::uint64_t id : {6, 7, 8}) {
            b.says("swp1", {talk(id, id == 6 ? 6 : 3)});
            b.loop.runFor(30s);
        }
    }
    ShownBridge b;
};

TEST_F(WaitingStreams, AreToldWithTheirPlacesAndWhatIsMissing) {
    EXPECT_EQ(b.text(Show::streams()), R"()");
    EXPECT_EQ(Control::jsonText(Show::at(b.value(Show::streams()), {"0x4", "ports"})), R"json()json");
    EXPECT_EQ(Control::jsonText(Show::at(b.value(Show::streams()), {"0x8", "waiting"})), R"json()json");
}

TEST_F(WaitingStreams, AreToldOfThePortInTheOrderInWhichTheyAreTried) {
    // A port that is not there, and one whose queues are not what they should be.
    b.bridge.config->intfEnableIs(IntfId{"swp9"}, true);
    b.bridge.refusals->portIs(IntfId{"swp1"}, "half duplex");
    EXPECT_EQ(b.text(Show::ports()), R"()");
    const State::Value ports = b.value(Show::ports());
    EXPECT_EQ(Control::jsonText(Show::at(ports, {"swp2"})), R"json()json");
    // The same members, whatever is known.
    EXPECT_EQ(Control::jsonText(Show::at(ports, {"swp9"})), R"json()json");
}

TEST_F(WaitingStreams, LeaveTheDomainsAndCountersOfTheirPorts) {
    b.bridge.config->intfEnableIs(IntfId{"swp9"}, true);
    b.bridge.cliConfig->srPvidIs(IntfId{"swp9"}, 7);
    EXPECT_EQ(b.text(Show::domain()), R"()");
    EXPECT_EQ(Control::jsonText(Show::at(b.value(Show::domain()), {"swp2", "B"})), R"json()json");

    b.packets->intfIs(IntfId{"swp2"})->sourceIs([] { return Linux::PortCounters{.receiveDropped = 4}; });
    b.peers.at("swp2")->sendRaw({0});
    b.loop.runFor(1s);
    EXPECT_EQ(b.text(Show::counters()), R"()");
    // In a value what is zero stands there as well.
    const State::Value counters = b.value(Show::counters());
    ASSERT_EQ(Show::membersOf(counters).size(), 3U);
    const std::size_t names =
        Msrp::msrpCounterNames.size() + Mrp::eventNames.size() + Mrp::malformedNames.size() + 6;
    for (const auto& [port, counted] : Show::membersOf(counters))
        EXPECT_EQ(Show::membersOf(counted).size(), names) << port;
    EXPECT_EQ(Control::jsonText(Show::at(counters, {"swp2", "malformed: tooShort"})), R"({"rx":1,"tx":0})");
}

TEST(ShowStream, IsNamedInEitherForm) {
    EXPECT_EQ(Show::parseStream("0x1122334455FF0001"), 0x1122334455FF0001U);
    EXPECT_EQ(Show::parseStream("11:22:33:44:55:ff/1"), 0x1122334455FF0001U);
    for (const char* bad : {"", "1", "11:22:33:44:55:ff", "11:22:33:44:55/1", "11:22:33:44:55:ff/65536"})
        EXPECT_EQ(Show::parseStream(bad), std::nullopt) << bad;
}

TEST(ShowLog, TellsHowOldALineIs) {
    ShownBridge b{{}};
    const auto log = b.record<Runtime::RecentLog>("log");
    const double now = Runtime::seconds(b.loop.now());
    log->add(now, "a");
    b.loop.runFor(27h);
    log->add(now + 97'190.5, "b");
    EXPECT_EQ(b.text(Show::log()), "AGE    LINE\n1d03h  a\n9s     b\n");
    EXPECT_EQ(Show::at(b.value(Show::log()), {"line", "2", "text"}), State::Value{"b"});
}

}  // namespace
