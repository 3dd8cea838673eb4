#include "tests/mrp/Engines.h"

#include <gtest/gtest.h>

using namespace MrpTest;

TEST(Port, DisablingTransmitsTheWithdrawalsWhileTheLinkIsUp) {
    for (const bool up : {true, false}) {
        Pair net;
        net.play("a1+1/5 b1+3/5=2 1s");
        net.sent(a1);
        net.a.linkIs(a1, up);
        net.a.app.withdraw(a1, say(1, 5));
        net.a.app.disable(a1);
        EXPECT_EQ(net.play("a1+1/6 20s"), "-b1 1/5=0\n");  // a request that is ignored
        EXPECT_EQ(net.sent(a1), up ? "Lv 1/5\n" : "");
        EXPECT_FALSE(net.wire.isOpen(a1));
        net.a.app.enable(a1);
        net.a.app.enable(a1);
        EXPECT_EQ(net.play("16s").substr(0, 10), "+a1 3/5=2\n");
    }
}

TEST(Port, HandlersMayDisableItOrPurgeItWhileItIsIndicated) {
    for (const int deed : {0, 1, 2, 3}) {
        Pair net;
        App& app = net.a.app;
        int indications = 0;
        const App::Hook act = [&](IntfId intf, const Sim::Say& what) {
            if (++indications != 2) return false;
            if (deed == 1) app.purgeAll(intf);
            if (deed == 2) app.purge(intf, what.type, 6);
            if (deed == 0 || deed == 3) app.disable(intf);
            if (deed == 3) app.enable(intf);
            return false;
        };
        app.onJoin = act;
        const bool ended = deed == 0 || deed == 3;
        EXPECT_EQ(net.play("a2<JoinIn:1/5,JoinIn:1/6,JoinIn:1/7"),
                  std::string{"+a2 1/5=0\n+a2 1/6=0\n"} + (ended ? "" : "+a2 1/7=0\n"))
            << deed;
        EXPECT_EQ(net.wire.isOpen(a2), deed != 0);
        // The same while leaves are indicated.
        app.onJoin = nullptr;
        net.play("a2<JoinIn:1/5,JoinIn:1/6,JoinIn:1/7");
        app.onLeave = act;
        indications = 0;
        net.play("a2<* 30s");
    }
}

TEST(Port, StandbyIsSilentAndTheActiveRoleBeginsWithALeaveAll) {
    Runtime::VirtualLoop loop;
    Wire wire{loop};
    Bridge bridge{loop, wire, {a1, a2}, 1, true};
    bridge.app.declare(a1, say(1, 5));
    bridge.app.disable(a2);
    loop.runFor(20s);
    EXPECT_TRUE(wire.frames.empty());
    EXPECT_FALSE(wire.isOpen(a1));
    bridge.standbyIs(false);
    bridge.standbyIs(false);
    loop.settle();
    ASSERT_EQ(wire.frames.size(), 1U);
    EXPECT_EQ(text(wire.frames[0].second), "LeaveAll 1; LeaveAll 2; LeaveAll 3; LeaveAll 4");
    bridge.app.declare(a1, say(1, 5));
    bridge.standbyIs(true);
    loop.runFor(20s);
    EXPECT_EQ(wire.frames.size(), 1U);
    EXPECT_FALSE(wire.isOpen(a1));
}
