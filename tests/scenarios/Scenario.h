/// A bridge with three ports, p1 to p3, and a peer at each; time is virtual.
#pragma once

#include "Runtime/VirtualLoop.h"
#include "Sim/Bridge.h"
#include "Sim/Peer.h"

#include <gtest/gtest.h>

namespace Sim {

using Mrp::Event;
using Msrp::ListenerState;
using Msrp::SrClassId;
using namespace std::chrono_literals;

inline const std::string selfBridge = "0x8000020000000001";

class Scenario : public testing::Test {
protected:
    void SetUp() override {
        bridge.start();
        loop.runFor(1s);  // the LeaveAll with which ports start would age out what a peer says before it
    }

    /// Every peer declares the bridge's own domains: all ports become core ports.
    void core() {
        for (Peer* peer : {&p1, &p2, &p3}) peer->say(domains());
        settle();
    }
    /// Half a second: time for every opportunity, too short for a leave timer.
    void settle() { loop.runFor(500ms); }
    /// Long enough for reviews and leave timers.
    void quiet() { loop.runFor(2s); }

    Runtime::VirtualLoop loop;
    Bridge bridge{loop, {"p1", "p2", "p3"}};
    Peer p1{bridge, "p1"};
    Peer p2{bridge, "p2"};
    Peer p3{bridge, "p3"};
};

}  // namespace Sim
