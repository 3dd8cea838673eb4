#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;

TEST(Exchange, JoinIsRegisteredChangedAndLeft) {
    Pair net;
    // A listener's declaration changes without a leave; nothing is declared of 6.
    EXPECT_EQ(net.play("a1+3/5=1 1s a1+3/5=2 a1-3/6 1s"), "+b1 3/5=1\n+b1 3/5=2\n");
    EXPECT_EQ(net.sent(a1), "JoinMt 3/5=1\nJoinMt 3/5=1\nJoinMt 3/5=2\nJoinMt 3/5=2\n");
    EXPECT_EQ(net.play("a1+1/5=100 1ms"), "+b1 1/5=100\n");
    EXPECT_EQ(net.play("1s"), "");
    EXPECT_EQ(net.sent(a1), "JoinMt 1/5\nJoinMt 1/5\n");
    EXPECT_EQ(net.play("a1+1/5=100 a1+1/5=200 1s"), "+b1 1/5=200\n");
    EXPECT_EQ(net.play("a1-1/5=200 599ms"), "");
    EXPECT_EQ(net.play("2ms"), "-b1 1/5=200\n");
    std::size_t kept = 0;
    net.a.app.each(a1, [&](const App::Name&, const Mrp::Attribute&) { ++kept; });
    EXPECT_EQ(kept, 1U) << "of what is over nothing is kept";
}

TEST(Exchange, APeersJoinInOfTheSameValueCutsTheSecondJoinShort) {
    Pair same;
    EXPECT_EQ(same.play("a1+3/6=2 10ms b1+3/6=2 1s"), "+a1 3/6=2\n+b1 3/6=2\n");
    EXPECT_EQ(same.sent(a1), "JoinMt 3/6=2\n");
    EXPECT_EQ(same.sent(b1), "JoinIn 3/6=2\nJoinIn 3/6=2\n");
    Pair other;
    EXPECT_EQ(other.play("a1+4/6=3 b1+4/6=2 1s"), "+a1 4/6=2\n+b1 4/6=3\n");
    EXPECT_EQ(other.sent(a1), "JoinMt 4/6\nJoinMt 4/6\n");
}

TEST(Exchange, LeaveOfAReplacedValueIsIgnored) {
    Pair net;
    EXPECT_EQ(net.play("a2<JoinMt:1/5=100 a2<JoinMt:1/5=200,Lv:1/5=100,Lv:1/9,In:1/8 2s"),
              "+a2 1/5=100\n+a2 1/5=200\n");
    // In time: a repeat, no leave.
    EXPECT_EQ(net.play("a2<Lv:1/5=200 a2<JoinMt:1/5=200 2s"), "+a2 1/5=200\n");
    // Of our own, before the new one was sent.
    EXPECT_EQ(net.play("a1+1/5=100 1s a1+1/5=200 a1-1/5=200 1s"), "+b1 1/5=100\n-b1 1/5=100\n");
}

TEST(Exchange, AQuestionIsAboutWhatThePeerDeclaredNotAboutWhatThisSideTookBack) {
    Pair net;
    net.play("a2<JoinIn:3/5=2 a2+3/5=1 1s a2-3/5=1 1s");
    net.sent(a2);
    net.play("a2<* 500ms");
    EXPECT_EQ(net.sent(a2), "Mt 3/5=2\n");
}

TEST(Exchange, DomainsAreDeliveredFirst) {
    EXPECT_EQ(Pair{}.play("a2<New:1/5=1,JoinIn:3/7=2,JoinIn:4/6=3"), "+a2 4/6=3\n+a2 1/5=1\n+a2 3/7=2\n");
}

TEST(Transmission, ConsecutiveValuesPackAndGapsAreBridged) {
    Pair net;
    net.play("a1+1/3=7 a1+1/1=7 a1+1/4=7 a1+1/2=7 1s a1-1/1=7 a1-1/4=7 1s");
    EXPECT_EQ(
        net.sent(a1),
        "JoinMt 1/1; JoinMt 1/2; JoinMt 1/3; JoinMt 1/4\nJoinMt 1/1; JoinMt 1/2; JoinMt 1/3; JoinMt 1/4\n"
        "Lv 1/1; JoinMt 1/2; JoinMt 1/3; Lv 1/4\n");
    EXPECT_EQ(net.wire.frames.back().second.size(), 1U + 4 + 2 + 25 + 2 + 2 + 2);  // one vector
}

TEST(Transmission, ThreeOpportunitiesInOneAndAHalfJoinTimes) {
    Pair net;
    for (std::uint64_t key = 0; key < 400; ++key) {
        net.a.app.declare(a1, say(1, key * 3));
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
    // Talkers that change without end do not keep the listener from being heard.
    for (std::uint32_t i = 0; i < 20; ++i) {
        for (std::uint64_t key = 0; key < 200; ++key) net.a.app.declare(a1, say(1, key * 3, i));
        net.play(i == 0 ? "1s a1+3/7=2" : "50ms");
    }
    EXPECT_EQ(net.b.app.held.size(), 201U);
    net.play("a1* 3s");
    EXPECT_EQ(net.b.app.held.size(), 201U);
    for (const auto& [intf, pdu] : net.wire.frames) EXPECT_LE(pdu.size(), 1500U);
}

TEST(Transmission, ALeaveAllOfManyKeepsThemAllAndTakesInWhatHappensMeanwhile) {
    constexpr std::uint64_t count = 20'000;  // done in pieces
    Pair net;
    for (const auto& side : {&net.a, &net.b}) side->config->maxAttributesPerTypeIs(100'000);
    for (std::uint64_t key = 1; key <= count; ++key) net.a.app.declare(a1, say(1, key * 3));
    net.play("1s");
    ASSERT_EQ(net.b.app.held.size(), count);
    std::uint64_t round = 0;
    for (const char* leaveAll : {"a1*", "b1*"}) {
        ++round;
        net.play(leaveAll);
        // Before and behind the place that has been reached.
        Runtime::Timer during{net.loop, [&] {
                                  for (const std::uint64_t key : {round * 3, (count - round) * 3}) {
                                      net.a.app.withdraw(a1, say(1, key));
                                      net.a.app.declare(a1, say(1, key + 1));
                                  }
                              }};
        during.armIn({});
        const std::string heard = net.play("2s");
        EXPECT_EQ(std::count(heard.begin(), heard.end(), '-'), 2);
        EXPECT_EQ(net.b.app.held.size(), count);
    }
}

TEST(Transmission, ALeaveAllOfManyHasNoMorePdusThanAnyOpportunity) {
    Pair net;
    for (const auto& side : {&net.a, &net.b}) side->config->maxAttributesPerTypeIs(100'000);
    for (std::uint64_t key = 1; key <= 60'000; ++key) net.a.app.declare(a1, say(1, key));
    net.play("1s");
    net.a.config->pdusPerOpportunityIs(1);
    const auto sent = net.wire.frames.size();
    net.play("a1* 1ms");
    EXPECT_EQ(net.wire.frames.size(), sent + 3) << "of the first three opportunities, in however many pieces";
    net.play("2s");
    EXPECT_EQ(net.b.app.held.size(), 60'000U);
}

TEST(Transmission, AQuietLinkCarriesLeaveAllsAndTheirAnswersOnly) {
    Pair net;
    net.play("a1+4/6=3 b1+4/6=3");
    for (std::uint64_t key = 0; key < 1000; ++key) {
        net.a.app.declare(a1, say(1, key));
        net.b.app.declare(b1, say(3, key, 2));
    }
    net.a.config->periodicEnabledIs(true);
    net.play("5s");
    net.a.config->periodicEnabledIs(false);
    net.sent(a1), net.sent(b1);
    net.play("200s");
    const std::string all = net.sent(a1) + net.sent(b1);
    const auto rounds = std::count(all.begin(), all.end(), 'A');  // 4 in each
    ASSERT_GT(rounds, 40);
    // The LeaveAll with its sender's own Joins, the answer, and the answer's repetition.
    EXPECT_LE(std::count(all.begin(), all.end(), '\n') * 4, rounds * 3);
}

TEST(Timers, ALeaveThatWasStoppedDoesNotEndTheNextOneEarlyAndANewLeaveTimeCountsAtOnce) {
    Pair net;
    EXPECT_EQ(net.play("a2<JoinIn:1/5 a2<Lv:1/5 300ms a2<JoinIn:1/5 a2<Lv:1/5 599ms"),
              "+a2 1/5=0\n+a2 1/5=0\n");
    net.a.config->leaveTimeIs(1000);
    EXPECT_EQ(net.play("400ms"), "");
    EXPECT_EQ(net.play("2ms"), "-a2 1/5=0\n");
}

TEST(Timers, LeaveAllComesBetweenOnceAndOneAndAHalfTimesItsTime) {
    Pair net;
    net.play("100s");
    std::vector<Runtime::Time> at;
    for (std::size_t i = 0; i < net.wire.frames.size(); ++i) {
        if (net.wire.frames[i].first == a2) at.push_back(net.wire.times[i]);
    }
    ASSERT_GE(at.size(), 6U);
    for (std::size_t i = 1; i < at.size(); ++i) {
        EXPECT_GT(at[i] - at[i - 1], 10s);
        EXPECT_LT(at[i] - at[i - 1], 15s);
    }
    EXPECT_EQ(net.sent(a2).substr(0, 48), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4\nL");
    net.a.config->leaveAllTimeIs(20'000);
    net.play("19s");
    EXPECT_EQ(net.sent(a2), "") << "a new time counts at once";
}
