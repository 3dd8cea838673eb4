#include "tests/scenarios/Scenario.h"

#include <algorithm>

namespace Sim {
namespace {

/// The talker's domain (0) and advertise (1), and the listener's domain (2) and declaration (3), one frame
/// each; and all of an end in one frame (4 and 5).
TEST(Reservation, NoOrderOfArrivalDelaysIt) {
    std::vector<std::vector<int>> orders{{5, 4}, {0, 1, 2, 3}};
    for (auto next = orders.back(); std::ranges::next_permutation(next).found;) orders.push_back(next);
    for (const std::vector<int>& order : orders) {
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
            if (what == 4) talker.say({advertise({}), domain(SrClassId::SrClassA, 3)});
            if (what == 5) receiver.say({listener(1, ListenerState::Ready), domain(SrClassId::SrClassA, 3)});
            time.runFor(1ms);
        }
        time.runFor(49ms);
        const std::string name = testing::PrintToString(order);
        EXPECT_EQ(fresh.streams(), "0x1 SrClassA 9088 p1 -> p2\n") << name;
        EXPECT_EQ(talker.registered().substr(0, 19), "Listener 0x1 Ready\n") << name;
        EXPECT_EQ(receiver.registered().substr(0, 14), "Advertise 0x1\n") << name;
    }
}

}  // namespace
}  // namespace Sim
