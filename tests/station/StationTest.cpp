/// End stations at the two ports of a bridge; time is virtual.
#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Station/EndStation.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using Msrp::ListenerState;
using Msrp::SrClassId;

namespace {

const IntfId eth0{"eth0"};

/// A station and what it heard.
struct End {
    End(Runtime::Loop& loop, Sim::Bridge& bridge, IntfId port, std::uint64_t seed)
        : ports{loop},
          station{eth0,
                  {.loop = loop,
                   .ports = ports,
                   .trace = trace,
                   .links = links,
                   .seed = seed,
                   .tell = [this](const Station::Event& event) { heard += text(event) + '\n'; },
                   .report = {}}} {
        bridge.ports().cableIs(port, [this](const Sim::Pdu& pdu) { ports.deliver(eth0, pdu); });
        ports.cableIs(eth0, [&bridge, port](const Sim::Pdu& pdu) { bridge.ports().deliver(port, pdu); });
    }
    void linkIs(bool up) {
        links->intfStatusIs(eth0)->linkStatusIs(up ? Interface::LinkStatus::linkUp
                                                   : Interface::LinkStatus::linkDown);
    }
    std::string take() { return std::exchange(heard, {}); }

    Sim::Ports ports;
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> links =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    Runtime::Trace trace;
    std::string heard;
    Station::EndStation station;
};

class StationTest : public testing::Test {
protected:
    void SetUp() override {
        bridge.start();
        talker.linkIs(true);
        listener.linkIs(true);
        heard();
    }
    /// What both have heard since the last call, after a time longer than the leave timers and shorter than
    /// the pauses between LeaveAlls.
    std::string heard() {
        loop.runFor(2s);
        return talker.take() + "---\n" + listener.take();
    }

    const Station::TalkerSpec stream{
        .streamId = 1, .macDa = EthAddr::fromNumber(0x91e0f0000001), .latency = 125};
    const std::string advertised =
        "talker 0x1 advertised: 91:e0:f0:00:00:01 VLAN 2 priority 3, 1 x 100 octets, rank 1, latency ";
    const std::string reserved = "0x1 SrClassA 9088 p1 -> p2\n";

    Runtime::VirtualLoop loop;
    Sim::Bridge bridge{loop, {"p1", "p2"}};
    End talker{loop, bridge, IntfId{"p1"}, 1};
    End listener{loop, bridge, IntfId{"p2"}, 2};
};

TEST_F(StationTest, HearsTheLinkAndTheBridgesClasses) {
    talker.linkIs(false);
    EXPECT_EQ(heard(), "link down\ndomain class B gone\ndomain class A gone\n---\n");
    talker.linkIs(true);
    EXPECT_EQ(heard(), "link up\ndomain class B priority 2 VLAN 2\ndomain class A priority 3 VLAN 2\n---\n");
}

TEST_F(StationTest, BothSidesHearTheOtherOneComeChangeAndGo) {
    listener.station.listen(1);
    EXPECT_EQ(heard(), "---\n");
    talker.station.talk(stream);
    const std::string first = "listener 0x1 AskingFailed\nlistener 0x1 Ready\n---\n" + advertised;
    EXPECT_EQ(heard().substr(0, first.size()), first);
    EXPECT_EQ(bridge.streams(), reserved);
    // What is merely repeated is told to nobody.
    loop.runFor(60s);
    EXPECT_EQ(heard(), "---\n");
    Station::TalkerSpec slower = stream;
    slower.latency = 250;
    talker.station.talk(slower);
    const std::string changed = heard();
    EXPECT_EQ(changed.find("gone"), std::string::npos) << changed;
    EXPECT_NE(changed.find("talker 0x1"), std::string::npos) << changed;
    listener.station.stopListening(1);
    EXPECT_EQ(heard(), "listener 0x1 gone\n---\n");
    talker.station.stopTalking(1);
    EXPECT_EQ(heard(), "---\ntalker 0x1 gone\n");
}

TEST_F(StationTest, ListenerAsksInVainForAFailedTalkerUntilItRecoversUnlessItsStateIsFixed) {
    talker.station.domainIs(SrClassId::SrClassA, {.priority = 4});
    talker.station.talk(stream);
    listener.station.listen(1);
    EXPECT_EQ(heard(),
              "listener 0x1 AskingFailed\n---\n"
              "talker 0x1 failed: egress port is not AVB capable (code 8) at bridge 0x8000020000000001\n");
    talker.station.domainIs(SrClassId::SrClassA, {.priority = 3});
    const std::string recovered = "listener 0x1 Ready\n---\n" + advertised;
    EXPECT_EQ(heard().substr(0, recovered.size()), recovered);
    EXPECT_EQ(bridge.streams(), reserved);
    listener.station.listen(1, ListenerState::AskingFailed);
    EXPECT_EQ(heard(), "listener 0x1 AskingFailed\n---\n");
}

TEST_F(StationTest, LinkThatReturnsFindsEverythingDeclaredAgainUntilTheStationLeaves) {
    talker.station.talk(stream);
    listener.station.listen(1);
    for (const bool up : {false, true}) {
        heard();
        listener.linkIs(up);
        bridge.linkIs("p2", up);
    }
    heard();
    EXPECT_EQ(bridge.streams(), reserved);
    talker.station.leave();
    EXPECT_EQ(heard(), "---\ntalker 0x1 gone\n");
    EXPECT_EQ(bridge.classes("p1").find("Core"), std::string::npos) << bridge.classes("p1");
    loop.runFor(30s);
    EXPECT_EQ(talker.take(), "");
}

TEST_F(StationTest, DoesNotHearOthersTalkUnderItsOwnStreamId) {
    // Face to face: a bridge would not let it come so far.
    for (const auto& [end, other] : {std::pair{&talker, &listener}, {&listener, &talker}}) {
        end->ports.cableIs(eth0, [o = other](const Sim::Pdu& pdu) { o->ports.deliver(eth0, pdu); });
        end->station.talk(stream);
    }
    EXPECT_EQ(heard(), "---\n");
    talker.station.stopTalking(1);
    loop.runFor(20s);  // a LeaveAll, after which the declaration is offered again
    EXPECT_EQ(talker.take().substr(0, advertised.size()), advertised);
}

TEST(StationEvent, IsAnObjectForPrograms) {
    Station::TalkerEvent event{.streamId = 0xab,
                               .state = Msrp::TalkerState::Failed,
                               .failureCode = Msrp::TalkerFailureCode::preempted};
    const auto o = Station::value(event);
    EXPECT_EQ(*o.member("talker"), State::Value{"0xAB"});
    EXPECT_EQ(*o.member("failureCode"), State::Value{std::uint64_t{6}});
    event.state = Msrp::TalkerState::None;
    EXPECT_EQ(*Station::value(event).member("failureCode"), State::Value{});
    EXPECT_EQ(*Station::value(Station::ListenerEvent{.streamId = 1}).member("state"), State::Value{"None"});
}

}  // namespace
