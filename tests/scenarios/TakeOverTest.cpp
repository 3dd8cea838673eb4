/// Two agents over one state database: one acts, the other stands by and takes over.
#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"

#include <gtest/gtest.h>

namespace Sim {
namespace {

using Msrp::ListenerState;
using Msrp::SrClassId;
using namespace std::chrono_literals;

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
    const auto heardByTalker = talker.registered();
    const auto heardByNear = near.registered();
    const std::size_t leaves = talker.leaves() + near.leaves() + far.leaves();

    bridge.activeStops();
    loop.runFor(100ms);
    far.withdraw(listener(2, ListenerState::Ready));  // nobody hears it
    talker.withdraw(advertise(stream(3)));
    loop.runFor(100ms);
    // A crash may have left a group that belongs to nobody.
    bridge.groupConfig->fdbConfigIs(VlanId{2})
        ->ethGroupIs(EthAddr::fromNumber(0x91e0f000ffff))
        ->intfIs(IntfId{"p1"}, true);
    bridge.standbyTakesOver();
    EXPECT_EQ(bridge.streams(), before);
    EXPECT_EQ(bridge.groups(), groups);
    loop.runFor(500ms);
    EXPECT_EQ(talker.leaves() + near.leaves() + far.leaves(), leaves);
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), streams * 9088);

    loop.runFor(2s);
    EXPECT_EQ(bridge.stream(2), "0x2 SrClassA 9088 p1 -> p2") << "the listener that left";
    EXPECT_EQ(bridge.stream(3), "0x3 no talker") << "the talker that left";
    loop.runFor(60s);
    auto expected = heardByTalker;
    expected.erase({std::uint8_t{3}, 3});
    EXPECT_EQ(talker.registered(), expected);
    auto nearExpected = heardByNear;
    nearExpected.erase({std::uint8_t{1}, 3});
    EXPECT_EQ(near.registered(), nearExpected);
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), (streams - 1) * 9088);
    EXPECT_EQ(bridge.logged("Invalid SR class"), 0U);

    // And back again.
    bridge.activeStops();
    bridge.standbyTakesOver();
    loop.runFor(60s);
    EXPECT_EQ(near.registered(), nearExpected);
}

}  // namespace
}  // namespace Sim
