/// Networks learnt of bridges that run: drawn again, they reserve the same.
#include "Plan/DotText.h"
#include "Plan/Learn.h"
#include "Plan/Report.h"
#include "tests/plan/Drawn.h"

#include <gtest/gtest.h>

namespace Plan {
namespace {

/// As a daemon tells it that has heard each link's other end; all ports of a bridge have one address.
std::vector<RunningBridge> recordsOf(const Network& network) {
    World world{network, {}};
    world.runUntilQuiet(std::chrono::seconds{2}, std::chrono::seconds{60});
    std::vector<RunningBridge> bridges;
    for (std::size_t d = 0; d < network.devices.size(); ++d) {
        Sim::Bridge* bridge = world.bridge(d);
        if (bridge == nullptr) continue;
        State::Object own;
        State::Object heard;
        for (const std::size_t l : network.linksOf(d)) {
            const auto& ends = network.links[l].ends;
            const std::size_t here = ends[0].device == d ? 0 : 1;
            const std::string& port = ends[here].port;
            const EthAddr other = network.devices[ends[1 - here].device].address;
            own.emplace_back(port, State::Object{{"macAddr", network.devices[d].address.text()}});
            heard.emplace_back(port, State::Object{{"lastSource", other.text()}});
        }
        RunningBridge& made = bridges.emplace_back(RunningBridge{.name = network.devices[d].name});
        for (const std::string& path : learntRecords()) {
            if (const auto record = bridge->database().entity(path))
                made.records.records[path] = record->value();
        }
        made.records.records["interface/status/eth/phy/all"] = State::Object{{"intfStatus", std::move(own)}};
        made.records.records["linux/packets"] = State::Object{{"intf", std::move(heard)}};
    }
    return bridges;
}

/// Streams with what became of them: names are those of whoever drew the network.
std::string outcome(const Network& network) {
    World world{network, {}};
    world.runUntilQuiet(std::chrono::seconds{2}, std::chrono::seconds{60});
    std::string text;
    const Outcome found = look(world);
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        text += State::hexText(network.streams[s].id) + ':';
        std::map<std::string, std::uint64_t> codes;
        for (const ListenerOutcome& listener : found.streams[s].listeners)
            codes[network.devices[listener.station].address.text()] = listener.code;
        for (const auto& [address, code] : codes) text += ' ' + address + '=' + std::to_string(code);
        text += '\n';
    }
    return text;
}

constexpr const char* drawn =
    "graph{node[kind=bridge] sw1[leaveAllTime=20000 priority=4096] sw2[srPvid=\"{\\\"n\\\":2}\"] "
    "sw3[srClassBPriority=1] "
    "node[kind=station] mic amp rec; edge[vlans=\"2 7\"];"
    "sw1:\"p--\\\"x\" -- sw2:n; sw2--sw3[speed=\"100M\" tailvlans=2]; mic--sw1; amp--sw3; rec--sw2;"
    "node[kind=stream talker=mic] one[listeners=\"amp rec\" size=224] "
    "two[listeners=\"amp rec\" size=1400 rank=0] "
    "three[listeners=amp size=9 vlan=7] four[listeners=\"amp rec\" size=9 class=B frames=3]"
    "five[talker=amp listeners=mic size=60]}";

TEST(Learn, WhatIsDrawnAgainReservesTheSame) {
    const Network network = read(drawn);
    const Learnt learnt = learn(recordsOf(network), {}, {});
    EXPECT_EQ(learnt.notes, std::vector<std::string>{});
    const std::string again = dotText(learnt.network);
    EXPECT_EQ(outcome(read(again)), outcome(network)) << again;
    EXPECT_EQ(dotText(read(again)), again);
    EXPECT_NE(again.find("priority=4096, leaveAllTime=20000"), std::string::npos) << again;
    EXPECT_NE(again.find("at 0s unlisten 02:00:00:01:00:01/2 sw3-amp; at 3s"), std::string::npos) << again;
}

TEST(Learn, SaysWhatItCannotKnow) {
    const Network network = read(
        "graph{node[kind=bridge] sw1 sw2[priority=4096] node[kind=station] mic amp;"
        "mic--sw1; sw1:a--sw2:b; sw1:c--sw2:d; amp--sw2;"
        "node[kind=stream] one[talker=mic listeners=amp size=224]}");
    const auto bridges = recordsOf(network);
    const Learnt doubtful = learn(bridges, {}, {});
    ASSERT_EQ(doubtful.notes.size(), 5U) << ::testing::PrintToString(doubtful.notes);
    EXPECT_EQ(doubtful.notes[0], "sw1:a: may be joined to sw2:b or to another port; say which with --link");
    const Learnt told = learn(bridges, {{.ends = {{{"sw1", "a"}, {"sw2", "b"}}}}}, {});
    EXPECT_EQ(told.notes, std::vector<std::string>{});
    EXPECT_EQ(outcome(read(dotText(told.network))), outcome(network));
    EXPECT_EQ(learn(bridges, {{.ends = {{{"sw1", "a"}, {"sw9", "b"}}}}}, {}).problem,
              "sw9:b: no bridge of that name is asked");
}

}  // namespace
}  // namespace Plan
