#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;
using Mrp::Event;

TEST(Port, DisablingTransmitsTheWithdrawalsWhileTheLinkIsUp) {
    for (const bool up : {true, false}) {
        Pair net;
        net.a.app.declare("a1", 1, 5, 1);
        net.b.app.declare("b1", 3, 5, 2);
        net.loop.runFor(1s);
        net.sent("a1");
        net.a.app.take();
        if (!up) net.a.links->intfStatusIs(IntfId{"a1"})->linkStatusIs(Interface::LinkStatus::linkDown);
        net.a.app.withdraw("a1", 1, 5, 1);
        net.a.app.mrpInterfaceDisable(IntfId{"a1"});
        net.a.app.declare("a1", 1, 6, 1);  // ignored
        net.loop.runFor(20s);
        EXPECT_EQ(net.sent("a1"), up ? "Lv 1/5\n" : "");
        EXPECT_EQ(net.a.app.take(), "");
        EXPECT_FALSE(net.wire.isOpen("a1"));
        net.a.app.mrpInterfaceEnable(IntfId{"a1"});
        net.a.app.mrpInterfaceEnable(IntfId{"a1"});
        net.loop.runFor(16s);
        EXPECT_EQ(net.a.app.take().substr(0, 10), "+a1 3/5=2\n");
    }
}

TEST(Port, HandlersMayDisableItOrPurgeItWhileItIsIndicated) {
    for (const int deed : {0, 1, 2, 3}) {
        Pair net;
        int joins = 0;
        const auto act = [&](const Mrp::MrpParameters& p) {
            if (++joins != 2) return;
            if (deed == 0) net.a.app.mrpInterfaceDisable(p.intf);
            if (deed == 1) net.a.app.mrpCleanUpIntfDatabase(p.intf);
            if (deed == 2) net.a.app.mrpCleanUpIntfDatabaseAttribute(p.intf, p.attributeType, 6);
            if (deed == 3) {
                net.a.app.mrpInterfaceDisable(p.intf);
                net.a.app.mrpInterfaceEnable(p.intf);
            }
        };
        net.a.app.onJoin = act;
        net.hear({{Event::JoinIn, 1, 5, 1}, {Event::JoinIn, 1, 6, 1}, {Event::JoinIn, 1, 7, 1}});
        const bool ended = deed == 0 || deed == 3;
        EXPECT_EQ(net.a.app.take(), std::string{"+a2 1/5=1\n+a2 1/6=1\n"} + (ended ? "" : "+a2 1/7=1\n"))
            << deed;
        EXPECT_EQ(net.wire.isOpen("a2"), deed != 0);
        // The same while leaves are indicated.
        joins = 0;
        net.hear({{Event::JoinIn, 1, 5, 1}, {Event::JoinIn, 1, 6, 1}, {Event::JoinIn, 1, 7, 1}});
        net.a.app.onJoin = nullptr;
        net.a.app.onLeave = act;
        joins = 0;
        net.hear({}, true);
        net.loop.runFor(30s);
    }
}

TEST(Port, StandbyIsSilentAndTheActiveRoleBeginsWithALeaveAll) {
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    Bridge bridge{loop, wire, {"a1", "a2"}, 1, true};
    bridge.app.declare("a1", 1, 5, 1);
    bridge.app.mrpInterfaceDisable(IntfId{"a2"});
    loop.runFor(20s);
    EXPECT_TRUE(wire.frames.empty());
    EXPECT_FALSE(wire.isOpen("a1"));
    bridge.engine->standbyModeIs(false);
    bridge.engine->handleStandbyMode();
    bridge.engine->handleStandbyMode();
    loop.settle();
    ASSERT_EQ(wire.frames.size(), 1U);
    EXPECT_EQ(text(wire.frames[0].second), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4");
    bridge.app.declare("a1", 1, 5, 1);
    bridge.engine->standbyModeIs(true);
    bridge.engine->handleStandbyMode();
    loop.runFor(20s);
    EXPECT_EQ(wire.frames.size(), 1U);
    EXPECT_FALSE(wire.isOpen("a1"));
}

TEST(Port, CountsWhatItSendsAndReceives) {
    Pair net;
    net.a.app.declare("a1", 1, 5, 1);
    net.loop.runFor(1s);
    EXPECT_EQ(net.a.status->intf(IntfId{"a1"})->txEvents(Event::JoinMt), 2U);
    EXPECT_EQ(net.b.status->intf(IntfId{"b1"})->rxEvents(Event::JoinMt), 2U);
    EXPECT_EQ(net.b.status->intf(IntfId{"b1"})->rxPdus(), 2U);
    EXPECT_EQ(State::text(*net.b.status->fieldValue("intf", "b1/rxEvents/JoinMt")), "2");
}

TEST(Port, BaseSpanningTreeTopologyFollowsTheMode) {
    Pair net;
    auto& app = net.a.app;
    const IntfId intf{"a1"};
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "NoStp");
    net.a.stp->modeIs(Stp::Mode::Mstp);
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "Cist");
    net.a.stp->modeIs(Stp::Mode::Disabled);
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "");
    net.a.stp->modeIs(Stp::Mode::Pvst);
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "");
    net.a.bridging->switchIntfConfigIs(intf)->nativeVlanIs(VlanId{10});
    net.a.bridging->vlanConfigIs(VlanId{10});
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "Vl10");
    net.a.engine.reset();
    EXPECT_EQ(app.baseSpanningTreeTopo(intf), "");
    app.declare("a1", 1, 5);  // without an engine nothing happens
    EXPECT_EQ(app.periodicSm(), nullptr);
}
