/// Several bridges, and what the stations around them get to see of each other.
#include "Sim/Network.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <iostream>

namespace Sim {
namespace {

using Msrp::ListenerState;
using namespace std::chrono_literals;

void listen(Network& net, std::initializer_list<const char*> stations, std::uint64_t id = 1) {
    for (const char* station : stations) net.station(station).declare(listener(id, ListenerState::Ready));
}
/// The picture below an empty line, or what of it comes from that device on, when leave timers have run on
/// one bridge after the other.
std::string later(Network& net, const std::string& from = {}) {
    net.loop.runFor(5s);
    const std::string picture = '\n' + net.picture();
    return picture.substr(std::min(picture.find('\n' + from), picture.size()));
}
/// That picture where stream 1 of the station "talker" takes these ways through sw1, sw2 and so on, and all
/// who listen have it.
std::string reserved(std::initializer_list<const char*> ways, std::initializer_list<const char*> listeners) {
    std::string out = "\n";
    for (int bridge = 1; const char* way : ways)
        out += "sw" + std::to_string(bridge++) + ": 0x1 SrClassA 9088 " + way + '\n';
    for (const char* who : listeners) out += std::string{who} + ": Advertise 0x1\n";
    return out + "talker: Listener 0x1 Ready\n";
}
TEST(Network, EachBridgeAddsTheLatencyOfItsPortAndAChangeFailsWhatRuns) {
    Network net{"talker - sw1 - sw2 - listener", "sw2 - late"};
    for (const char* bridge : {"sw1", "sw2"}) {
        const IntfId port{bridge == std::string{"sw1"} ? "sw2" : "listener"};
        net[bridge].cliConfig->latencyIs(port, {1000, 7});
    }
    net["sw2"].cliConfig->latencyIs(IntfId{"late"}, {0xFFFF'FFFF, 0});
    net.station("talker").declare(advertise({.latency = 500}));
    net.station("talker").declare(
        advertise({.id = 2, .macDa = 0x91e0f0000002, .priority = 2, .latency = 500}));
    listen(net, {"listener"});
    EXPECT_EQ(later(net, "late"), R"(
late: Advertise 0x1 latency 4294967295, Advertise 0x2 latency 507
listener: Advertise 0x1 latency 2500, Advertise 0x2 latency 514
talker: Listener 0x1 Ready
)");
    net["sw1"].cliConfig->latencyIs(IntfId{"sw2"}, {2000, 7});
    EXPECT_EQ(later(net, "listener"), R"(
listener: Advertise 0x2 latency 514, Failed 0x1 code 7 bridge 0x8000020000000002 latency 2500
talker: Listener 0x1 AskingFailed
)");
    net["sw1"].cliConfig->latencyDel(IntfId{"sw2"});
    net["sw1"].cliConfig->latencyIs(IntfId{"sw2"}, {1000, 7});
    EXPECT_EQ(later(net, "listener"), R"(
listener: Advertise 0x1 latency 2500, Advertise 0x2 latency 514
talker: Listener 0x1 Ready
)");
}

TEST(Network, AFailureArrivesAsTheFirstBridgeToldIt) {
    Network net{"talker - sw1 = sw2 = sw3 - sw4 - far", "sw1 - near"};
    net.station("talker").declare(advertise({.maxFrameSize = 1458, .latency = 500}));
    listen(net, {"near", "far"});
    EXPECT_EQ(later(net), R"(
sw1: 0x1 SrClassA 96000 talker -> near
sw2: 0x1 SrClassA 96000 sw1 -> sw1
sw3: 0x1 SrClassA 96000 sw2 -> sw2
sw4: 0x1 SrClassA 96000 sw3 -> sw3
far: Failed 0x1 code 1 bridge 0x8000020000000002 latency 500
near: Advertise 0x1 latency 500
talker: Listener 0x1 ReadyFailed
)");
    net.speedIs("sw2", "sw3",
                Interface::Speed::speed1Gbps);  // now the bottleneck is one bridge nearer to the talker
    EXPECT_EQ(later(net, "far"), R"(
far: Failed 0x1 code 1 bridge 0x8000020000000001 latency 500
near: Advertise 0x1 latency 500
talker: Listener 0x1 ReadyFailed
)");
    net.speedIs("sw1", "sw2", Interface::Speed::speed1Gbps);
    EXPECT_EQ(later(net, "far"), R"(
far: Advertise 0x1 latency 500
near: Advertise 0x1 latency 500
talker: Listener 0x1 Ready
)") << "bridges add no latency of their own";
    net.station("talker").declare(advertise({.maxFrameSize = 1458, .latency = 800}));
    EXPECT_EQ(later(net, "far"), R"(
far: Failed 0x1 code 7 bridge 0x8000020000000001 latency 500
near: Failed 0x1 code 7 bridge 0x8000020000000001 latency 500
talker: Listener 0x1 AskingFailed
)") << "what was registered first stays";
}

TEST(Network, AFailureThatMovesNamesItsNewBridgeThoughTheCodeIsTheSame) {
    Network net{"talker - sw1 = sw2 = far", "sw2 - near"};
    net.station("talker").declare(advertise({.maxFrameSize = 1458}));
    const auto heard = [&net](Interface::Speed speed) {
        net.speedIs("sw1", "sw2", speed);
        return later(net, "far");
    };
    listen(net, {"far"});
    EXPECT_EQ(later(net, "far").substr(0, 50), "\nfar: Failed 0x1 code 1 bridge 0x8000020000000002\n");
    listen(net, {"near"});
    EXPECT_EQ(later(net, "far"), R"(
far: Failed 0x1 code 1 bridge 0x8000020000000001
near: Failed 0x1 code 1 bridge 0x8000020000000001
talker: Listener 0x1 AskingFailed
)");
    EXPECT_EQ(heard(Interface::Speed::speed1Gbps), R"(
far: Failed 0x1 code 1 bridge 0x8000020000000002
near: Advertise 0x1
talker: Listener 0x1 ReadyFailed
)");
}

TEST(Network, ListenersAreMergedWhereTheirWaysMeet) {
    using enum ListenerState;
    Network net{"talker - sw1 - sw2 - sw3 - a", "sw3 - b", "sw1 - c"};
    net.station("talker").declare(advertise({}));
    for (unsigned combination = 1; combination <= 27; ++combination) {  // the last one is that nobody listens
        std::string said;
        for (unsigned rest = combination; const char* who : {"a", "b", "c"}) {
            const ListenerState state = std::array{Ignore, AskingFailed, Ready}[rest % 3];
            const Say say = listener(1, state);
            state == Ignore ? net.station(who).withdraw(say) : net.station(who).declare(say);
            said += State::enumText(state) + ' ';
            rest /= 3;
        }
        const bool some = said.find("Ready") != std::string::npos;
        const bool failing = said.find("AskingFailed") != std::string::npos;
        const std::string merged = failing && some ? "ReadyFailed" : failing ? "AskingFailed" : "Ready";
        EXPECT_EQ(later(net, "talker"), some || failing ? "\ntalker: Listener 0x1 " + merged + '\n' : "")
            << said << net.picture();
    }
}

TEST(Network, EachDomainHasItsOwnStreamsUntilTheyBecomeOne) {
    Network net{"talker - sw1 - sw2 - sw3 - far", "sw2 - near"};
    net["sw3"].cliConfig->srClassAPriorityIs(4);
    net.station("far").declare(domain(Msrp::SrClassId::SrClassA, 4));
    net.station("talker").declare(advertise({}));
    net.station("far").declare(advertise({.id = 2, .macDa = 0x91e0f0000002, .priority = 4}));
    listen(net, {"near", "far"});
    EXPECT_EQ(later(net).append(net["sw2"].classes("sw3")), R"(
sw1: 0x1 SrClassA 9088 talker -> sw2
sw2: 0x1 SrClassA 9088 sw1 -> near
sw3: 0x1 no talker, 0x2 SrClassA 9088 far -> far
near: Advertise 0x1
talker: Listener 0x1 Ready
sw3 Boundary Core)");

    net["sw3"].cliConfig->srClassAPriorityIs(3);
    net.station("far").declare(domain(Msrp::SrClassId::SrClassA, 3));
    EXPECT_EQ(later(net), reserved({"talker -> sw2", "sw1 -> near sw3", "sw2 -> far"}, {"far", "near"}));
}

TEST(Network, ATalkerMovesToAnotherBridgeAndBack) {
    Network net{"talker - sw1 - sw2 - sw3 - far", "sw2 - near"};
    net.station("talker").declare(advertise({}));
    listen(net, {"near", "far"});
    const std::string before = reserved({"talker -> sw2", "sw1 -> near sw3", "sw2 -> far"}, {"far", "near"});
    EXPECT_EQ(later(net), before);
    net.move("talker", "sw3");
    EXPECT_EQ(later(net), reserved({"sw2 -> sw2", "sw3 -> near", "talker -> far sw2"}, {"far", "near"}));
    net.move("talker", "sw1");
    EXPECT_EQ(later(net), before);
}

TEST(Network, AStreamFollowsTheSpanningTreeRoundARing) {
    Network net{"sw1 - sw2 - sw3 - sw1", "talker - sw1", "sw3 - listener"};
    const auto treeGoes = [&net](const char* open, const char* blocked) {
        net.portStateIs("sw3", blocked, Bridging::Topology::PortState::blocking);
        net.portStateIs("sw3", open, Bridging::Topology::PortState::forwarding);
    };
    const auto direct = reserved({"talker -> sw3", "sw1 -> sw1", "sw1 -> listener"}, {"listener"});
    const auto overSw2 = reserved({"talker -> sw2", "sw1 -> sw3", "sw2 -> listener"}, {"listener"});
    treeGoes("sw1", "sw2");
    net.station("talker").declare(advertise({}));
    listen(net, {"listener"});
    EXPECT_EQ(later(net), direct);
    treeGoes("sw2", "sw1");
    EXPECT_EQ(later(net), overSw2);
    treeGoes("sw1", "sw2");
    EXPECT_EQ(later(net), direct);
    net.cableIs("sw1", "sw3", false);
    EXPECT_EQ(later(net, "sw3"), "\nsw3: 0x1 no talker\n");
    net.portStateIs("sw3", "sw2", Bridging::Topology::PortState::forwarding);
    EXPECT_EQ(later(net), overSw2);
    net.cableIs("sw1", "sw3", true);
    treeGoes("sw1", "sw2");
    EXPECT_EQ(later(net), direct);
}

TEST(Network, ABridgeInTheMiddleRestarts) {
    Network net{"west - sw1 - sw2 - sw3 - east", "sw1 - westEnd", "sw3 - eastEnd"};
    net.station("west").declare(advertise({}));
    net.station("east").declare(advertise({.id = 2, .macDa = 0x91e0f0000002}));
    listen(net, {"westEnd", "eastEnd"});
    listen(net, {"westEnd", "eastEnd"}, 2);
    const std::string before = later(net);
    EXPECT_EQ(before, R"(
sw1: 0x1 SrClassA 9088 west -> sw2 westEnd, 0x2 SrClassA 9088 sw2 -> westEnd
sw2: 0x1 SrClassA 9088 sw1 -> sw3, 0x2 SrClassA 9088 sw3 -> sw1
sw3: 0x1 SrClassA 9088 sw2 -> eastEnd, 0x2 SrClassA 9088 east -> eastEnd sw2
east: Advertise 0x1, Listener 0x2 Ready
eastEnd: Advertise 0x1, Advertise 0x2
west: Advertise 0x2, Listener 0x1 Ready
westEnd: Advertise 0x1, Advertise 0x2
)");
    const auto leaves = [&net](const char* who) { return std::to_string(net.station(who).leaves()) + '\n'; };
    net.restart("sw2", 0s);  // its agent is back before anybody has missed it
    EXPECT_EQ(later(net).append(leaves("westEnd") + leaves("east")), before + "0\n0\n");

    net.restart("sw2", 5s);
    EXPECT_EQ('\n' + net.picture(), R"(
sw1: 0x1 SrClassA 9088 west -> westEnd, 0x2 no talker
sw3: 0x1 no talker, 0x2 SrClassA 9088 east -> eastEnd
east: Listener 0x2 Ready
eastEnd: Advertise 0x2
west: Listener 0x1 Ready
westEnd: Advertise 0x1
)") << "each side has kept what is its own";
    EXPECT_EQ(later(net), before);
    net.loop.runFor(60s);  // LeaveAlls of everybody
    EXPECT_EQ(later(net).append(leaves("westEnd") + leaves("east")), before + "1\n1\n")
        << "the other side's talker";
}

TEST(Network, SevenBridgesThereAndBackTakeNoWaiting) {
    Network net{"talker - sw1 - sw2 - sw3 - sw4 - sw5 - sw6 - sw7 = listener"};
    const auto heard = [&net](const std::string& what) {
        return net.loop.runUntil([&] { return net.picture().find(what) != std::string::npos; }, 10s);
    };
    for (std::uint64_t id = 1; id <= 4; ++id) {
        const std::string name = "0x" + std::to_string(id);
        const Runtime::Time begin = net.loop.now();
        net.station("talker").declare(advertise({.id = id, .macDa = 0x91e0f0000000 + id}));
        ASSERT_TRUE(heard("Advertise " + name));
        listen(net, {"listener"}, id);
        ASSERT_TRUE(heard("Listener " + name + " Ready"));
        const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(net.loop.now() - begin);
        std::cout << "stream " << id << " through 7 bridges and back: " << took.count() << " ms\n";
        // A port may speak three times in 1.5 JoinTimes; waiting for that does not add up over the bridges.
        EXPECT_LE(took, id <= 3 ? 10ms : 300ms);
    }
}

}  // namespace
}  // namespace Sim
