#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;
using Mrp::Event;

TEST(Exchange, JoinIsRegisteredChangedAndLeft) {
    Pair net;
    net.a.app.declare("a1", 1, 5, 100);
    net.loop.runFor(1ms);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n");
    net.loop.runFor(1s);
    EXPECT_EQ(net.sent("a1"), "JoinMt 1/5\nJoinMt 1/5\n");
    net.a.app.declare("a1", 1, 5, 100);
    net.a.app.declare("a1", 1, 5, 200);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=200\n");
    net.a.app.withdraw("a1", 1, 5, 200);
    net.loop.runFor(599ms);
    EXPECT_EQ(net.b.app.take(), "");
    net.loop.runFor(2ms);
    EXPECT_EQ(net.b.app.take(), "-b1 1/5=200\n");
}

TEST(Exchange, ListenerDeclarationChangesWithoutALeave) {
    Pair net;
    net.a.app.declare("a1", 3, 5, 1);
    net.loop.runFor(1s);
    net.a.app.declare("a1", 3, 5, 2);
    net.a.app.withdraw("a1", 3, 6);  // nothing declared
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 3/5=1\n+b1 3/5=2\n");
    EXPECT_EQ(net.sent("a1"), "JoinMt 3/5=1\nJoinMt 3/5=1\nJoinMt 3/5=2\nJoinMt 3/5=2\n");
}

TEST(Exchange, APeersJoinInCutsTheSecondJoinShort) {
    Pair net;
    net.a.app.declare("a1", 3, 6, 2);
    net.loop.runFor(10ms);
    net.b.app.declare("b1", 3, 6, 2);
    net.loop.runFor(1s);
    EXPECT_EQ(net.sent("a1"), "JoinMt 3/6=2\n");
    EXPECT_EQ(net.sent("b1"), "JoinIn 3/6=2\nJoinIn 3/6=2\n");
    EXPECT_EQ(net.a.app.take() + net.b.app.take(), "+a1 3/6=2\n+b1 3/6=2\n");
}

TEST(Exchange, ValuesThatDifferAreNotConfirmedToEachOther) {
    Pair net;
    net.a.app.declare("a1", 4, 6, 3);
    net.b.app.declare("b1", 4, 6, 2);
    net.loop.runFor(1s);
    EXPECT_EQ(net.a.app.take() + net.b.app.take(), "+a1 4/6=2\n+b1 4/6=3\n");
    EXPECT_EQ(net.sent("a1"), "JoinMt 4/6\nJoinMt 4/6\n");
}

TEST(Exchange, LeaveAllOfEitherSideRepeatsJoinsAndEndsWhatIsGone) {
    for (const std::string side : {"a1", "b1"}) {
        Pair net;
        net.a.app.declare("a1", 1, 5, 100);
        net.a.app.declare("a1", 1, 6, 100);
        net.loop.runFor(1s);
        net.wire.lose = [](std::size_t) { return true; };
        net.a.app.withdraw("a1", 1, 6, 100);
        net.loop.runFor(1s);
        net.wire.lose = nullptr;
        net.b.app.take();
        (side == "a1" ? net.a : net.b).app.periodicSm()->transmitAllLeaveAll(IntfId{side});
        net.loop.runFor(1s);
        EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n-b1 1/6=100\n") << side;
    }
}

TEST(Exchange, LeaveOfAReplacedValueIsIgnored) {
    Pair net;
    net.hear({{Event::JoinMt, 1, 5, 100}});
    net.hear(
        {{Event::JoinMt, 1, 5, 200}, {Event::Lv, 1, 5, 100}, {Event::Lv, 1, 9, 0}, {Event::In, 1, 8, 0}});
    net.loop.runFor(2s);
    EXPECT_EQ(net.a.app.take(), "+a2 1/5=100\n+a2 1/5=200\n");
    net.hear({{Event::Lv, 1, 5, 200}});
    net.hear({{Event::JoinMt, 1, 5, 200}});  // in time: a repeat, no leave
    net.loop.runFor(2s);
    EXPECT_EQ(net.a.app.take(), "+a2 1/5=200\n");
}

TEST(Exchange, WithdrawingAValueThatWasChangedButNotSentLeavesTheOldOne) {
    Pair net;
    net.a.app.declare("a1", 1, 5, 100);
    net.loop.runFor(1s);
    net.a.app.declare("a1", 1, 5, 200);
    net.a.app.withdraw("a1", 1, 5, 200);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n-b1 1/5=100\n");
}

TEST(Exchange, DomainsAreDeliveredFirst) {
    Pair net;
    net.hear({{Event::New, 1, 5, 1}, {Event::JoinIn, 3, 7, 2}, {Event::JoinIn, 4, 6, 3}});
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n+a2 1/5=1\n+a2 3/7=2\n");
}

TEST(Transmission, ConsecutiveValuesPackAndGapsAreBridged) {
    Pair net;
    for (const std::uint64_t key : {3U, 1U, 4U, 2U}) net.a.app.declare("a1", 1, key, 7);
    net.loop.runFor(1s);
    net.a.app.withdraw("a1", 1, 1, 7);
    net.a.app.withdraw("a1", 1, 4, 7);
    net.loop.runFor(1s);
    EXPECT_EQ(
        net.sent("a1"),
        "JoinMt 1/1; JoinMt 1/2; JoinMt 1/3; JoinMt 1/4\nJoinMt 1/1; JoinMt 1/2; JoinMt 1/3; JoinMt 1/4\n"
        "Lv 1/1; JoinMt 1/2; JoinMt 1/3; Lv 1/4\n");
    EXPECT_EQ(net.wire.frames.back().second.size(), 1U + 4 + 2 + 25 + 2 + 2 + 2);  // one vector
}

TEST(Transmission, ThreeOpportunitiesInOneAndAHalfJoinTimes) {
    Pair net;
    for (std::uint64_t key = 0; key < 400; ++key) {
        net.a.app.declare("a1", 1, key * 3, 1);
        net.loop.runFor(5ms);
    }
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.held.size(), 400U);
    auto times = net.wire.times;
    times.erase(std::unique(times.begin(), times.end()), times.end());  // PDUs of one opportunity
    ASSERT_GT(times.size(), 15U);
    EXPECT_EQ(times[0], Runtime::Time{1000s});
    for (std::size_t i = 3; i < times.size(); ++i) EXPECT_GE(times[i] - times[i - 3], 300ms);
}

TEST(Transmission, OnePduPerOpportunityServesEveryAttributeInTurn) {
    Pair net;
    net.a.config->pdusPerOpportunityIs(1);
    for (std::uint64_t key = 0; key < 200; ++key) net.a.app.declare("a1", 1, key * 3, 1);
    net.loop.runFor(1s);
    net.a.app.declare("a1", 3, 7, 2);
    // Talkers that change without end do not keep the listener from being heard.
    for (std::uint32_t i = 0; i < 20; ++i) {
        for (std::uint64_t key = 0; key < 200; ++key) net.a.app.declare("a1", 1, key * 3, 2 + i);
        net.loop.runFor(50ms);
    }
    EXPECT_EQ(net.b.app.held.size(), 201U);
    net.a.app.periodicSm()->transmitAllLeaveAll(IntfId{"a1"});
    net.loop.runFor(3s);
    EXPECT_EQ(net.b.app.held.size(), 201U);
    for (const auto& [intf, pdu] : net.wire.frames) EXPECT_LE(pdu.size(), 1500U);
}

TEST(Transmission, ALeaveAllOfManyKeepsThemAllAndTakesInWhatHappensMeanwhile) {
    constexpr std::uint64_t count = 20'000;  // done in pieces
    Pair net;
    for (const auto& side : {&net.a, &net.b}) side->config->maxAttributesPerTypeIs(100'000);
    for (std::uint64_t key = 1; key <= count; ++key) net.a.app.declare("a1", 1, key * 3, 1);
    net.loop.runFor(1s);
    ASSERT_EQ(net.b.app.held.size(), count);
    std::uint64_t round = 0;
    for (const auto& side : {&net.a, &net.b}) {
        net.b.app.take();
        ++round;
        side->app.periodicSm()->transmitAllLeaveAll(IntfId{side->ports[0]});
        // Before and behind the place that has been reached.
        Runtime::Timer during{net.loop, [&] {
                                  net.a.app.withdraw("a1", 1, round * 3, 1);
                                  net.a.app.withdraw("a1", 1, (count - round) * 3, 1);
                                  net.a.app.declare("a1", 1, round * 3 + 1, 1);
                                  net.a.app.declare("a1", 1, (count - round) * 3 + 1, 1);
                              }};
        during.armIn({});
        net.loop.runFor(2s);
        const std::string heard = net.b.app.take();
        EXPECT_EQ(std::count(heard.begin(), heard.end(), '-'), 2);
        EXPECT_EQ(net.b.app.held.size(), count);
    }
}

TEST(Transmission, AQuietLinkCarriesLeaveAllsAndTheirAnswersOnly) {
    Pair net;
    net.a.app.declare("a1", 4, 6, 3);
    net.b.app.declare("b1", 4, 6, 3);
    for (std::uint64_t key = 0; key < 1000; ++key) {
        net.a.app.declare("a1", 1, key, 1);
        net.b.app.declare("b1", 3, key, 2);
    }
    net.loop.runFor(5s);
    net.sent("a1"), net.sent("b1");
    net.loop.runFor(200s);
    const std::string all = net.sent("a1") + net.sent("b1");
    std::size_t rounds = 0;
    for (auto at = all.find("LeaveAll 1;"); at != std::string::npos; at = all.find("LeaveAll 1;", at + 1))
        ++rounds;
    ASSERT_GT(rounds, 10U);
    // The LeaveAll with its sender's own Joins, the answer, and the answer's repetition.
    EXPECT_LE(static_cast<std::size_t>(std::count(all.begin(), all.end(), '\n')), 3 * rounds);
}

TEST(Transmission, PeriodicMachineRepeatsWhileEnabled) {
    Pair net;
    net.a.app.declare("a1", 4, 6, 3);
    net.loop.runFor(1s);
    net.sent("a1");
    net.a.config->periodicEnabledIs(true);
    net.loop.runFor(2500ms);
    EXPECT_EQ(net.sent("a1"), "JoinMt 4/6\nJoinMt 4/6\n");
    net.a.config->periodicEnabledIs(false);
    net.loop.runFor(2500ms);
    EXPECT_EQ(net.sent("a1"), "");
}

TEST(Timers, LeaveTimeChangesForLeavesUnderWay) {
    Pair net;
    net.hear({{Event::JoinIn, 1, 5, 1}});
    net.hear({{Event::Lv, 1, 5, 1}});
    net.a.config->leaveTimeIs(1000);
    net.loop.runFor(999ms);
    net.a.app.take();
    net.loop.runFor(2ms);
    EXPECT_EQ(net.a.app.take(), "-a2 1/5=1\n");
}

TEST(Timers, LeaveAllComesBetweenOnceAndOneAndAHalfTimesItsTime) {
    Pair net;
    net.loop.runFor(100s);
    net.sent("b1");
    std::vector<Runtime::Time> at;
    for (std::size_t i = 0; i < net.wire.frames.size(); ++i) {
        if (net.wire.frames[i].first == "a2") at.push_back(net.wire.times[i]);
    }
    ASSERT_GE(at.size(), 6U);
    for (std::size_t i = 1; i < at.size(); ++i) {
        EXPECT_GT(at[i] - at[i - 1], 10s);
        EXPECT_LT(at[i] - at[i - 1], 15s);
    }
    EXPECT_EQ(net.sent("a2").substr(0, 48), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4\nL");
}
