/// How reservations end: in which order who leaves, who falls silent, who moves.
#include "Sim/MrpPeer.h"
#include "tests/scenarios/Scenario.h"

namespace Sim {
namespace {

TEST_F(Scenario, ListenersLeaveOneByOneAndTheTalkerHearsOfTheLastOnly) {
    core();
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    p3.say(listener(1, ListenerState::Ready));
    settle();
    ASSERT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p2 p3");
    p1.heard();
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p3");
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 0U);
    EXPECT_EQ(p1.heard().find("Listener"), std::string::npos);
    p3.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p1");
    EXPECT_NE(p1.heard().find("Lv Listener 0x1"), std::string::npos);
    EXPECT_TRUE(bridge.queues->intfConfig().empty());
    // And the talker after them.
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_EQ(bridge.groups(), "");
    EXPECT_NE(p2.heard().find("Lv Advertise 0x1"), std::string::npos);
}

TEST_F(Scenario, ATalkerMovesToAnotherPortAndItsListenerFollows) {
    core();
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    p3.say(advertise({}));
    settle();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p2") << "the first one has it";
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p3 -> p2");
    EXPECT_NE(p3.registered().find("Listener 0x1 Ready\n"), std::string::npos) << p3.registered();
    EXPECT_NE(p1.registered().find("Advertise 0x1\n"), std::string::npos) << p1.registered();
    EXPECT_EQ(p1.registered().find("Listener"), std::string::npos) << p1.registered();
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 9088U);
}

TEST(Silence, EndsWhatASilentPeerDeclaredWithinALeaveAllRound) {
    Runtime::VirtualLoop loop;
    Bridge bridge{loop, {"p1", "p2", "p3"}};
    bridge.mrpConfig->leaveAllTimeIs(4000);
    bridge.start();
    MrpPeer talker{loop, bridge, "p1", 1};
    MrpPeer listens{loop, bridge, "p2", 2};
    MrpPeer other{loop, bridge, "p3", 3};
    for (MrpPeer* peer : {&talker, &listens, &other}) {
        for (const Say& say : domains()) peer->declare(say);
    }
    talker.declare(advertise({}));
    other.declare(advertise({.id = 2, .macDa = 0x91e0f0000002}));
    for (const std::uint64_t id : {1U, 2U}) listens.declare(listener(id, ListenerState::Ready));
    loop.runFor(30s);
    ASSERT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p2\n0x2 SrClassA 9088 p3 -> p2\n");
    const auto round = 6s + std::chrono::milliseconds{bridge.mrpConfig->leaveTime()};

    talker.linkIs(false);  // its link stays up on this side
    loop.runFor(round);
    EXPECT_EQ(bridge.streams(), "0x1 no talker\n0x2 SrClassA 9088 p3 -> p2\n");
    EXPECT_EQ(bridge.classes("p1"), "p1 WaitingForPeer WaitingForPeer");
    listens.linkIs(false);
    loop.runFor(round + 1s);  // and the review
    EXPECT_EQ(bridge.streams(), "0x2 SrClassA 9088 p3 -> p3\n");
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 0U);
    talker.linkIs(true);
    listens.linkIs(true);
    loop.runFor(1s);
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p2\n0x2 SrClassA 9088 p3 -> p2\n");
}

}  // namespace
}  // namespace Sim
