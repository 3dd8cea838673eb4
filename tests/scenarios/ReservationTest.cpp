#include "tests/scenarios/Scenario.h"

#include <algorithm>

namespace Sim {
namespace {

TEST_F(Scenario, AStreamIsReservedEndToEnd) {
    core();
    p1.say(advertise({}));
    settle();
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p1\n");  // the talker's port holds the place
    EXPECT_EQ(p2.registered(), "Advertise 0x1\nDomain 5 priority 2 vid 2\nDomain 6 priority 3 vid 2\n");

    p2.say(listener(1, ListenerState::Ready));
    p3.say(listener(1, ListenerState::Ready));
    settle();
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p2 p3\n");
    EXPECT_EQ(bridge.groups(), "2 91:e0:f0:00:00:01: p2 p3\n");
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 9088U);
    EXPECT_EQ(bridge.allocated("p3", SrClassId::SrClassA), 9088U);
    EXPECT_EQ(p1.registered(), "Listener 0x1 Ready\nDomain 5 priority 2 vid 2\nDomain 6 priority 3 vid 2\n");
    quiet();
    ASSERT_NE(bridge.status->registeredStreams(1), nullptr);

    p1.say(advertise({}, Event::Lv));
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    p3.say(listener(1, ListenerState::Ready, Event::Lv));
    loop.runFor(5s);
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_EQ(bridge.groups(), "");
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 0U);
    EXPECT_EQ(bridge.status->registeredStreams(1), nullptr);
    EXPECT_TRUE(bridge.queues->intfConfig().empty());
}

/// The talker's domain (0) and advertise (1), and the listener's domain (2) and declaration (3), one frame
/// each.
TEST_F(Scenario, NoOrderOfArrivalDelaysTheReservation) {
    std::vector<int> order{0, 1, 2, 3};
    do {
        Runtime::VirtualLoop time;
        Bridge fresh{time, {"p1", "p2"}};
        Peer talker{fresh, "p1"};
        Peer receiver{fresh, "p2"};
        fresh.start();
        time.runFor(1s);
        for (const int what : order) {
            if (what == 0) talker.say(domains());
            if (what == 1) talker.say(advertise({}));
            if (what == 2) receiver.say(domains());
            if (what == 3) receiver.say(listener(1, ListenerState::Ready));
            time.runFor(1ms);
        }
        time.runFor(49ms);
        const std::string name = testing::PrintToString(order);
        EXPECT_EQ(fresh.streams(), "0x1 SrClassA 9088 p1 -> p2\n") << name;
        EXPECT_NE(talker.registered().find("Listener 0x1 Ready\n"), std::string::npos) << name;
        EXPECT_NE(receiver.registered().find("Advertise 0x1\n"), std::string::npos) << name;
    } while (std::ranges::next_permutation(order).found);
}

TEST_F(Scenario, OnePduThatCarriesEverythingIsEnough) {
    p2.say({listener(1, ListenerState::Ready), domain(SrClassId::SrClassA, 3)});
    p1.say({advertise({}), domain(SrClassId::SrClassA, 3)});
    loop.runFor(50ms);
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p2\n");
    EXPECT_NE(p1.registered().find("Listener 0x1 Ready\n"), std::string::npos);
}

}  // namespace
}  // namespace Sim
