/// Two agents over one state database: one acts, the other stands by and takes over.
#include "Sim/MrpPeer.h"
#include "tests/scenarios/Scenario.h"

namespace Sim {
namespace {

TEST(TakeOver, ThousandReservationsSurviveAndWhatNobodyWantsGoes) {
    constexpr std::uint64_t streams = 1000;
    Runtime::VirtualLoop loop;
    Bridge bridge{loop, {"p1", "p2", "p3"}};
    MrpPeer talker{loop, bridge, "p1", 1};
    MrpPeer near{loop, bridge, "p2", 2};
    MrpPeer far{loop, bridge, "p3", 3};
    const auto speed = Interface::Speed::speed100Gbps;
    for (const char* port : {"p1", "p2", "p3"}) bridge.speedIs(port, speed);
    bridge.start();
    bridge.standbyStart();
    for (MrpPeer* peer : {&talker, &near, &far}) {
        for (const Say& say : domains()) peer->declare(say);
    }
    const auto stream = [](std::uint64_t id) { return Talker{.id = id, .macDa = 0x91e0f0000000 + id}; };
    for (std::uint64_t id = 1; id <= streams; ++id) {
        talker.declare(advertise(stream(id)));
        near.declare(listener(id, ListenerState::Ready));
        if (id % 2 == 0) far.declare(listener(id, ListenerState::Ready));
    }
    talker.declare(failed({.id = 5000, .macDa = 0x91e0f0005000}, 9));
    loop.runFor(30s);
    const std::string before = bridge.streams();
    const std::string groups = bridge.groups();
    ASSERT_EQ(bridge.allocated("p2", SrClassId::SrClassA), streams * 9088);
    // Three leave while nobody hears it.
    auto byTalker = talker.registered();
    auto byNear = near.registered();
    byTalker.erase({Msrp::typeListener, 3});
    byNear.erase({Msrp::typeTalkerAdvertise, 3});
    byNear.erase({Msrp::typeTalkerFailed, 5000});
    const std::size_t leaves = talker.leaves() + near.leaves() + far.leaves();

    bridge.activeStops();
    loop.runFor(100ms);
    far.withdraw(listener(2, ListenerState::Ready));
    talker.withdraw(advertise(stream(3)));
    talker.withdraw(failed({.id = 5000, .macDa = 0x91e0f0005000}, 9));
    loop.runFor(100ms);
    // A crash may have left a group that belongs to nobody.
    bridge.groupConfig->fdbConfigIs(VlanId{2})
        ->ethGroupIs(EthAddr::fromNumber(0x91e0f000ffff))
        ->intfIs(IntfId{"p1"}, true);
    bridge.standbyTakesOver();
    loop.runFor(0s);  // that many take several turns
    EXPECT_TRUE(bridge.streams() == before);
    EXPECT_TRUE(bridge.groups() == groups);
    loop.runFor(500ms);
    EXPECT_EQ(talker.leaves() + near.leaves() + far.leaves(), leaves);
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), streams * 9088);

    loop.runFor(2s);
    EXPECT_EQ(bridge.stream(2), "0x2 SrClassA 9088 p1 -> p2") << "the listener that left";
    EXPECT_EQ(bridge.stream(3), "0x3 no talker") << "the talker that left";
    EXPECT_EQ(bridge.stream(5000), "") << "and the one that had failed";
    loop.runFor(60s);
    EXPECT_EQ(talker.registered(), byTalker);
    EXPECT_EQ(near.registered(), byNear);
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), (streams - 1) * 9088);
    EXPECT_EQ(bridge.logged("Invalid SR class"), 0U);

    // And back again.
    bridge.activeStops();
    bridge.standbyTakesOver();
    loop.runFor(60s);
    EXPECT_EQ(near.registered(), byNear);
}

class TakeOverOf : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        bridge.standbyStart();
        core();
    }
    void takeOver() {
        bridge.activeStops();
        bridge.standbyTakesOver();
    }
};

TEST_F(TakeOverOf, AStreamThatWasNeverPublishedHoldsNothing) {
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    loop.runFor(1ms);
    ASSERT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 9088U);
    ASSERT_TRUE(bridge.status->registeredStreams().empty()) << "the review is yet to come";
    takeOver();
    EXPECT_EQ(forwardingFault(bridge), "");
    EXPECT_EQ(bridge.groups(), "");
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    EXPECT_EQ(stream1(), reserved);
}

TEST_F(TakeOverOf, WhoWaitsKeepsItsPlace) {
    const auto said = [&](std::uint64_t id, std::uint64_t macDa, std::uint16_t frameSize) {
        return advertise({.id = id, .macDa = macDa, .maxFrameSize = frameSize});
    };
    // Streams 9, 2 and 1 want one address, in this order.
    for (const std::uint64_t id : {9U, 2U, 1U}) p1.say(said(id, 0x91e0f0000009, 100));
    // Each of the others takes more than half of what p2 may carry.
    bridge.cliConfig->srClassABandwidthPercentIs(10);
    for (const std::uint64_t id : {8U, 7U, 6U}) {
        p1.say(said(id, 0x91e0f0000100 + id, 1000));
        p2.say(listener(id, ListenerState::Ready));
    }
    quiet();
    ASSERT_EQ(bridge.stream(8), "0x8 SrClassA 66688 p1 -> p2");
    takeOver();
    loop.runFor(100ms);  // the LeaveAll
    std::vector<Say> meant = domains(Event::JoinIn);
    for (const std::uint64_t id : {1U, 2U, 9U}) meant.push_back(said(id, 0x91e0f0000009, 100));
    for (const std::uint64_t id : {6U, 7U, 8U}) meant.push_back(said(id, 0x91e0f0000100 + id, 1000));
    p1.say(meant);
    p2.say(domains(Event::JoinIn));
    for (const std::uint64_t id : {6U, 7U, 8U}) p2.say(listener(id, ListenerState::Ready));
    p3.say(domains(Event::JoinIn));
    quiet();
    p1.say(advertise({.id = 9, .macDa = 0x91e0f0000009}, Event::Lv));
    p2.say(listener(8, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.stream(2), "0x2 SrClassA 9088 p1 -> p1");
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> no group") << bridge.streams();
    EXPECT_EQ(bridge.stream(7), "0x7 SrClassA 66688 p1 -> p2");
    EXPECT_EQ(bridge.stream(6), "0x6 SrClassA 66688 p1 -> p1");
}

TEST_F(TakeOverOf, TwoChangesInATurnLeaveThePortsOpen) {
    reserve();
    quiet();
    takeOver();
    takeOver();
    loop.runFor(100ms);  // the LeaveAll
    p1.say({advertise({}), domain(SrClassId::SrClassA, 3)});
    p2.say({listener(1, ListenerState::Ready), domain(SrClassId::SrClassA, 3)});
    quiet();
    EXPECT_EQ(bridge.stream(1), reserved);
}

TEST_F(TakeOverOf, OneThatDiedByItsOwnRestartLosesNothing) {
    reserve();
    quiet();
    p2.heard();
    bridge.agent().stop();  // without a word to anybody
    EXPECT_FALSE(bridge.ports().isOpen(IntfId{"p1"}));
    bridge.start();
    loop.runFor(100ms);  // the LeaveAll
    for (Peer* peer : {&p1, &p2, &p3}) peer->say(domains());
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    quiet();
    EXPECT_EQ(picture(), all);
    const std::string heard = p2.heard();
    EXPECT_TRUE(heard.starts_with("LeaveAll\n")) << heard;
    EXPECT_EQ(heard.find("Lv "), std::string::npos) << heard;
}

TEST_F(TakeOverOf, APeerHearsOfTheEndOfWhatTheOtherSideHadDeclared) {
    reserve();
    quiet();
    p2.heard();
    takeOver();
    bridge.config->intfEnableDel(IntfId{"p2"});
    quiet();
    const std::string heard = p2.heard();
    EXPECT_NE(heard.find("Lv Advertise 0x1"), std::string::npos) << heard;
    EXPECT_NE(heard.find("Lv Domain"), std::string::npos) << heard;
}

TEST_F(TakeOverOf, WhatAnEarlierActiveLifeHadYetToDoIsForgotten) {
    reserve();
    quiet();
    p1.say(advertise({}, Event::Lv));
    for (int i = 0; i < 200 && bridge.stream(1) == reserved; ++i) loop.runFor(10ms);
    ASSERT_FALSE(bridge.agent().msrpSm()->deletePendingStreamIntfs().empty());
    takeOver();
    loop.runFor(100ms);  // the LeaveAll
    const auto everybody = [&] {
        p1.say({advertise({}), domain(SrClassId::SrClassA, 3), domain(SrClassId::SrClassB, 2)});
        for (Peer* peer : {&p2, &p3}) peer->say(domains());
        p2.say(listener(1, ListenerState::Ready));
    };
    everybody();
    quiet();
    ASSERT_EQ(bridge.stream(1), reserved);
    takeOver();  // back to the first one
    loop.runFor(100ms);
    everybody();
    quiet();
    EXPECT_EQ(bridge.stream(1), reserved);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1)->talkerState(IntfId{"p1"}),
              Msrp::TalkerState::Advertise);
}

TEST_F(TakeOverOf, WhatWasConfiguredMeanwhileIsPutIntoEffect) {
    reserve();
    quiet();
    const auto meanwhile = [this](const std::function<void()>& configure) {
        bridge.activeStops();
        configure();
        bridge.standbyTakesOver();
    };
    meanwhile([&] {
        bridge.cliConfig->srClassBSupportedIs(false);
        bridge.config->intfEnableDel(IntfId{"p3"});
    });
    EXPECT_EQ(bridge.classes("p1"), "p1 Core NotSupported");
    EXPECT_EQ(bridge.classes("p3"), "p3 absent");
    EXPECT_EQ(bridge.stream(1), reserved);
    for (const bool disabled : {true, false}) {
        meanwhile([&] { bridge.cliConfig->shapingDisabledIs(disabled); });
        EXPECT_EQ(bridge.queues->intfConfig().empty(), disabled);
    }
    meanwhile([&] { bridge.vlanDel(2, "p2"); });
    EXPECT_EQ(bridge.stream(1), waiting);
    EXPECT_EQ(forwardingFault(bridge), "");
    meanwhile([&] { bridge.speedIs("p2", Interface::Speed::speed100Mbps); });
    EXPECT_EQ(bridge.classes("p2"), "p2 WaitingForPeer NotSupported") << "admitted anew";
    meanwhile([&] { bridge.cliConfig->srClassAPriorityIs(4); });
    quiet();
    EXPECT_EQ(bridge.groups(), "") << "the stream has the priority of no class any more";
}

TEST_F(TakeOverOf, EveryVlanThatWasTakenAwayMeanwhileIsSeenInHoweverManyTurns) {
    bridge.unitsPerTurn = 1;
    bridge.standbyStart();  // in place of the one with longer turns
    for (std::uint16_t vlan = 2; vlan <= 5; ++vlan) {
        for (const char* port : {"p1", "p2", "p3"}) bridge.vlanIs(vlan, port, true);
        p1.say(advertise({.id = vlan, .macDa = 0x91e0f0000000U + vlan, .vlan = vlan}));
        p2.say(listener(vlan, ListenerState::Ready));
    }
    quiet();
    ASSERT_EQ(bridge.stream(5), "0x5 SrClassA 9088 p1 -> p2");
    bridge.activeStops();
    for (std::uint16_t vlan = 3; vlan <= 5; ++vlan) bridge.vlanDel(vlan, "p2");
    bridge.standbyTakesOver();
    settle();
    EXPECT_EQ(bridge.stream(2), "0x2 SrClassA 9088 p1 -> p2");
    for (std::uint64_t id = 3; id <= 5; ++id)
        EXPECT_EQ(bridge.stream(id), "0x" + std::to_string(id) + " SrClassA 9088 p1 -> p1");
}

}  // namespace
}  // namespace Sim
