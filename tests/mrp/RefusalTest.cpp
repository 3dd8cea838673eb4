#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;
using Mrp::Event;

TEST(Refusal, IsOfferedAgainAfterALeaveAllOrAnotherValueOnly) {
    Pair net;
    net.b.app.refusing = {"1/5=100", "1/5=200"};
    net.a.app.declare("a1", 1, 5, 100);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n") << "the second Join is a mere repeat";
    net.a.app.periodicSm()->transmitAllLeaveAll(IntfId{"a1"});
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n");
    net.a.app.declare("a1", 1, 5, 200);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=200\n");
    net.a.app.withdraw("a1", 1, 5, 200);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "") << "the application holds nothing that could leave";
    EXPECT_EQ(net.b.status->intf(IntfId{"b1"})->refusedJoins(), 3U);
}

TEST(Refusal, OfAChangeLeavesTheAcceptedValueRegistered) {
    Pair net;
    net.b.app.refusing = {"1/5=200"};
    net.a.app.declare("a1", 1, 5, 100);
    net.loop.runFor(1s);
    net.a.app.declare("a1", 1, 5, 200);
    net.loop.runFor(1s);
    net.a.app.withdraw("a1", 1, 5, 200);
    net.loop.runFor(1s);
    EXPECT_EQ(net.b.app.take(), "+b1 1/5=100\n+b1 1/5=200\n-b1 1/5=100\n");
}

TEST(Refusal, IsRetriedAfterADomainThatIsNoRepeat) {
    Pair net;
    net.a.app.refusing = {"1/7=1", "1/5=1", "3/5=2", "4/5=2"};
    net.hear({{Event::JoinIn, 3, 5, 2}, {Event::JoinIn, 1, 7, 1}, {Event::JoinIn, 1, 5, 1}});
    net.a.app.take();
    net.hear({{Event::JoinIn, 4, 5, 2}});
    EXPECT_EQ(net.a.app.take(), "+a2 4/5=2\n") << "a refused Domain opens nothing";
    net.a.app.refusing.erase("1/7=1");
    net.hear({{Event::JoinIn, 4, 6, 3}});
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n+a2 1/5=1\n+a2 1/7=1\n+a2 3/5=2\n+a2 4/5=2\n");
    net.hear({{Event::JoinIn, 4, 6, 3}}, true);
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n") << "a repeat opens nothing";
}

TEST(Refusal, ADomainIsOfferedAgainWhenThisSideDeclaresIt) {
    Pair net;
    net.a.app.refusing = {"4/6=3", "1/5=1"};
    net.hear({{Event::JoinIn, 4, 6, 3}, {Event::JoinIn, 1, 5, 1}});
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n+a2 1/5=1\n");
    net.a.app.refusing.clear();
    // Answering each offer with the same declaration must not go on for ever.
    net.a.app.onJoin = [&](const Mrp::MrpParameters& p) {
        if (p.attributeType == 4) net.a.app.declare("a2", 4, 6, 3);
    };
    net.a.app.declare("a2", 4, 6, 3);
    net.loop.settle();
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n+a2 1/5=1\n");
    net.a.app.declare("a2", 4, 6, 3);
    net.loop.settle();
    EXPECT_EQ(net.a.app.take(), "+a2 4/6=3\n") << "registered ones too";
}

TEST(Refusal, IsRetriedWhenTheSameKeyLeavesOrIsPurgedAnywhere) {
    Pair net;
    net.b.app.declare("b1", 1, 5, 9);
    net.loop.runFor(1s);
    net.a.app.refusing = {"1/5=1", "3/5=2"};
    net.hear({{Event::JoinIn, 1, 5, 1}, {Event::JoinIn, 3, 5, 2}, {Event::JoinIn, 1, 6, 1}});
    net.a.app.take();
    net.b.app.withdraw("b1", 1, 5, 9);
    net.loop.runFor(1s);
    EXPECT_EQ(net.a.app.take(), "-a1 1/5=9\n+a2 1/5=1\n+a2 3/5=2\n");
    net.a.app.mrpCleanUpIntfDatabaseAttribute(IntfId{"a2"}, 1, 5);
    net.loop.settle();
    EXPECT_EQ(net.a.app.take(), "+a2 3/5=2\n");
    net.a.app.request("a2", 1, 6, 1, Mrp::requestInternalLeave);
    net.loop.settle();
    EXPECT_EQ(net.a.app.take(), "");
}

TEST(Refusal, ARangeErrorOfAHandlerIsOne) {
    Pair net;
    net.a.app.outOfRange = {"1/5=1"};
    net.hear({{Event::JoinIn, 1, 5, 1}, {Event::JoinIn, 1, 6, 1}});
    EXPECT_EQ(net.a.app.held.size(), 1U);
    const auto status = net.a.status->intf(IntfId{"a2"});
    EXPECT_EQ(status->rangeErrors(), 1U);
    EXPECT_EQ(status->refusedJoins(), 1U);
    ASSERT_EQ(net.a.reports.size(), 1U);
    EXPECT_EQ(net.a.reports[0], "a2: MRP attribute of type 1 key 0x5 refused: value out of range");
}

TEST(InternalLeave, ForgetsBothSidesSilentlyAndKeepsARefusal) {
    Pair net;
    net.a.app.declare("a1", 1, 5, 100);
    net.b.app.declare("b1", 1, 5, 100);
    net.b.app.declare("b1", 1, 6, 1);
    net.a.app.refusing = {"1/6=1"};
    net.loop.runFor(1s);
    net.sent("a1");
    net.a.app.take();
    for (const std::uint64_t key : {5U, 6U}) net.a.app.request("a1", 1, key, 100, Mrp::requestInternalLeave);
    net.loop.runFor(1s);
    EXPECT_EQ(net.sent("a1") + net.a.app.take(), "");
    net.b.app.declare("b1", 4, 6, 3);
    net.loop.runFor(1s);
    EXPECT_EQ(net.a.app.take(), "+a1 4/6=3\n+a1 1/6=1\n") << "what stays refused is retried";
    net.b.app.periodicSm()->transmitAllLeaveAll(IntfId{"b1"});
    net.loop.runFor(1s);
    EXPECT_EQ(net.a.app.take(), "+a1 4/6=3\n+a1 1/5=100\n+a1 1/6=1\n");
}

TEST(Purge, OfOneAttributeMakesThePeerDeclareItAgain) {
    for (const std::uint32_t own : {0U, 100U, 300U}) {  // nothing declared, the same value, another value
        Pair net;
        if (own != 0) net.a.app.declare("a1", 1, 5, own);
        net.b.app.declare("b1", 1, 5, 100);
        net.loop.runFor(1s);
        EXPECT_EQ(net.a.app.take(), "+a1 1/5=100\n");
        net.a.app.mrpCleanUpIntfDatabaseAttribute(IntfId{"a1"}, 1, 5);
        EXPECT_EQ(net.a.app.take(), "");
        net.loop.runFor(1s);
        EXPECT_EQ(net.a.app.take(), "+a1 1/5=100\n") << own;
    }
}

TEST(Purge, OfAPortSendsALeaveAll) {
    Pair net;
    net.b.app.declare("b1", 1, 5, 100);
    net.b.app.declare("b1", 3, 5, 1);
    net.loop.runFor(1s);
    net.sent("a1");
    net.a.app.take();
    net.a.app.mrpCleanUpIntfDatabase(IntfId{"a1"});
    net.b.app.withdraw("b1", 3, 5, 1);
    net.loop.runFor(1s);
    EXPECT_EQ(net.sent("a1").substr(0, 46), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4");
    EXPECT_EQ(net.a.app.take(), "+a1 1/5=100\n");
}

TEST(Limit, BoundsTheRegistrationsOfAPort) {
    Pair net;
    net.a.config->maxAttributesPerTypeIs(10);
    net.a.app.refusing = {"1/0=1", "1/2=1"};
    for (std::uint64_t key = 0; key < 24; key += 2)
        net.hear({{Event::JoinIn, 1, key, 1}, {Event::JoinIn, 3, key, 1}});
    EXPECT_EQ(net.a.app.held.size(), 8U + 10U);
    EXPECT_EQ(net.a.status->intf(IntfId{"a2"})->droppedRegistrations(), 4U);
    net.hear({}, true);
    net.loop.runFor(1s);
    EXPECT_TRUE(net.a.app.held.empty());
    net.hear({{Event::JoinIn, 1, 22, 1}});
    EXPECT_EQ(net.a.app.held.size(), 1U);
    const std::vector<std::string> reports{
        "a2: MRP attributes of type 1: no more are registered, the limit of 10 is reached",
        "a2: MRP attributes of type 3: no more are registered, the limit of 10 is reached",
        "a2: MRP attributes of type 1: registered again, fewer than the limit of 10",
        "a2: MRP attributes of type 3: registered again, fewer than the limit of 10"};
    EXPECT_EQ(net.a.reports, reports);
}
