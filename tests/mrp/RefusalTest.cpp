#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;

TEST(Refusal, IsOfferedAgainAfterALeaveAllOrAnotherValueOnly) {
    Pair net;
    net.b.app.refusing = {"1/5=100", "1/5=200"};
    EXPECT_EQ(net.play("a1+1/5=100 1s"), "+b1 1/5=100\n") << "the second Join is a mere repeat";
    EXPECT_EQ(net.play("a1* 1s"), "+b1 1/5=100\n");
    EXPECT_EQ(net.play("a1+1/5=200 1s"), "+b1 1/5=200\n");
    EXPECT_EQ(net.play("a1-1/5=200 1s"), "") << "the application holds nothing that could leave";
    EXPECT_EQ(net.b.status->intf(b1)->refusedJoins(), 3U);
    // Of a change it leaves the accepted value registered.
    EXPECT_EQ(net.play("a1+1/5=300 1s a1+1/5=200 1s a1-1/5=200 1s"),
              "+b1 1/5=300\n+b1 1/5=200\n-b1 1/5=300\n");
    // The other type of the key ends it, what the application still holds of it included.
    EXPECT_EQ(net.play("a1+1/5=300 1s a1+1/5=200 1s a1!1/5 a1+2/5=7 2s"),
              "+b1 1/5=300\n+b1 1/5=200\n+b1 2/5=7\n-b1 1/5=300\n");
}

TEST(Refusal, IsRetriedAfterADomainThatIsNoRepeat) {
    Pair net;
    net.a.app.refusing = {"1/7=1", "1/5=1", "3/5=2", "4/5=2"};
    net.play("a2<JoinIn:3/5=2,JoinIn:1/7=1,JoinIn:1/5=1");
    EXPECT_EQ(net.play("a2<JoinIn:4/5=2"), "+a2 4/5=2\n") << "a refused Domain opens nothing";
    net.a.app.refusing.erase("1/7=1");
    EXPECT_EQ(net.play("a2<JoinIn:4/6=3"), "+a2 4/6=3\n+a2 1/5=1\n+a2 1/7=1\n+a2 3/5=2\n+a2 4/5=2\n");
    EXPECT_EQ(net.play("a2<*JoinIn:4/6=3"), "+a2 4/6=3\n") << "a repeat opens nothing";
}

TEST(Refusal, OffersGoRoundAlsoWhileMoreAreAskedFor) {
    Pair net;
    net.a.app.refusing = {"1/5=1", "1/7=1"};
    net.play("a2<JoinIn:1/5=1,JoinIn:1/7=1");
    int more = 2;
    net.a.app.onJoin = [&](IntfId intf, const Sim::Say&) {
        if (more-- > 0) net.a.app.mrpPortOpened(intf);
        return false;
    };
    net.a.app.mrpPortOpened(a2);
    EXPECT_EQ(net.play("1s"), "+a2 1/5=1\n+a2 1/7=1\n+a2 1/5=1\n+a2 1/7=1\n");
}

TEST(Refusal, ADomainIsOfferedAgainWhenThisSideDeclaresIt) {
    Pair net;
    net.a.app.refusing = {"4/6=3", "1/5=1"};
    EXPECT_EQ(net.play("a2<JoinIn:4/6=3,JoinIn:1/5=1"), "+a2 4/6=3\n+a2 1/5=1\n");
    net.a.app.refusing.clear();
    // Answering each offer with the same declaration must not go on for ever.
    net.a.app.onJoin = [&](IntfId intf, const Sim::Say& what) {
        if (what.type == Msrp::typeDomain) net.a.app.declare(intf, what);
        return false;
    };
    EXPECT_EQ(net.play("a2+4/6=3"), "+a2 4/6=3\n+a2 1/5=1\n");
    EXPECT_EQ(net.play("a2+4/6=3"), "+a2 4/6=3\n") << "registered ones too";
    EXPECT_EQ(net.play("a2+4/6=3 a2^4/6"), "") << "unless they have gone by then";
}

TEST(Refusal, IsRetriedWhenTheSameKeyLeavesOrIsPurgedAnywhere) {
    Pair net;
    net.a.app.refusing = {"1/5=1", "3/5=2"};
    net.play("b1+1/5=9 1s a2<JoinIn:1/5=1,JoinIn:3/5=2,JoinIn:1/6=1");
    EXPECT_EQ(net.play("b1-1/5=9 1s"), "-a1 1/5=9\n+a2 1/5=1\n+a2 3/5=2\n");
    EXPECT_EQ(net.play("a2^1/5"), "+a2 3/5=2\n");
    EXPECT_EQ(net.play("a2!1/6=1"), "");
}

TEST(Refusal, ARangeErrorOfAHandlerIsOne) {
    Pair net;
    net.a.app.onJoin = [](IntfId, const Sim::Say& what) {
        return describe(what) == "1/5=1" ? throw std::range_error("value out of range") : false;
    };
    net.play("a2<JoinIn:1/5=1,JoinIn:1/6=1");
    EXPECT_EQ(net.a.app.held.size(), 1U);
    const auto status = net.a.status->intf(a2);
    EXPECT_EQ(status->rangeErrors(), 1U);
    EXPECT_EQ(status->refusedJoins(), 1U);
    EXPECT_EQ(net.a.reports,
              std::vector<std::string>{"a2: MRP attribute of type 1 key 0x5 refused: value out of range"});
}

TEST(InternalLeave, ForgetsBothSidesSilentlyAndKeepsARefusal) {
    Pair net;
    net.a.app.refusing = {"1/6=1"};
    net.play("a1+1/5=100 b1+1/5=100 b1+1/6=1 1s");
    net.sent(a1);
    EXPECT_EQ(net.play("a1!1/5=100 a1!1/6=100 1s") + net.sent(a1), "");
    EXPECT_EQ(net.play("b1+4/6=3 1s"), "+a1 4/6=3\n+a1 1/6=1\n") << "what stays refused is retried";
    EXPECT_EQ(net.play("b1* 1s"), "+a1 4/6=3\n+a1 1/5=100\n+a1 1/6=1\n-b1 1/5=100\n");
}

TEST(Purge, OfOneAttributeMakesThePeerDeclareItAgain) {
    for (const std::string own : {"", "a1+1/5=100 ", "a1+1/5=300 "}) {
        Pair net;
        net.play(own + "b1+1/5=100 1s");
        EXPECT_EQ(net.play("a1^1/5"), "");
        EXPECT_EQ(net.play("1s"), "+a1 1/5=100\n") << own;
    }
}

TEST(Purge, OfAnotherValueTakesNoJoinFromThatOfThisSide) {
    Pair net;
    net.play("a2<JoinIn:1/5=100");
    net.play("a2+1/5=300 a2^1/5 1s");
    EXPECT_EQ(net.sent(a2), "Mt 1/5; JoinMt 1/5\nJoinMt 1/5\n");
}

TEST(Purge, OfAPortSendsALeaveAll) {
    Pair net;
    net.play("b1+1/5=100 b1+3/5=1 1s");
    net.sent(a1);
    EXPECT_EQ(net.play("a1^ b1-3/5=1 1s"), "+a1 1/5=100\n");
    EXPECT_EQ(net.sent(a1).substr(0, 46), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4");
}

TEST(Limit, BoundsTheRegistrationsOfAPort) {
    Pair net;
    net.a.config->maxAttributesPerTypeIs(10);
    net.a.app.refusing = {"1/0=1", "1/2=1"};
    for (int key = 0; key < 24; key += 2)
        net.play("a2<JoinIn:1/" + std::to_string(key) + "=1,JoinIn:3/" + std::to_string(key) + "=1");
    EXPECT_EQ(net.a.app.held.size(), 8U + 10U);
    EXPECT_EQ(net.a.status->intf(a2)->droppedRegistrations(), 4U);
    net.play("a2<* 1s");
    EXPECT_TRUE(net.a.app.held.empty());
    net.play("a2<JoinIn:1/22=1");
    EXPECT_EQ(net.a.app.held.size(), 1U);
    const std::vector<std::string> reports{
        "a2: MRP attributes of type 1: no more are registered, the limit of 10 is reached",
        "a2: MRP attributes of type 3: no more are registered, the limit of 10 is reached",
        "a2: MRP attributes of type 1: registered again, fewer than the limit of 10",
        "a2: MRP attributes of type 3: registered again, fewer than the limit of 10"};
    EXPECT_EQ(net.a.reports, reports);
}
