/// Whole networks: what is reserved, and the one line for what somebody has done wrong.
#include "Plan/Latency.h"
#include "Plan/Report.h"
#include "Plan/Tree.h"
#include "tests/plan/Drawn.h"

#include <gtest/gtest.h>

namespace Plan {
namespace {

/// The states of all reservations after they have settled, and the reasons.
std::string run(const std::string& dot) {
    const Network network = read(dot);
    World world{network, {}};
    world.runUntilQuiet(std::chrono::seconds{2}, std::chrono::seconds{60});
    const std::string text = outcomeText(network, look(world));
    return text.substr(0, text.find("\n\n") + 1);
}

std::string stage(const std::string& first, const std::string& sw3 = "", const std::string& amp = "100M") {
    return "graph{edge[speed=\"1G\"] node[kind=bridge] sw1[priority=4096] sw2 sw3[" + sw3 +
           "] sw4 node[kind=station] foh amp;" + first + ";sw2--sw3--sw4--sw1 foh--sw1 amp--sw3[speed=\"" +
           amp +
           "\"]; node[kind=stream]"
           "main[talker=foh listeners=amp format=\"aaf-int24\" channels=8 rate=48000]}";
}

TEST(Run, NamesAMistakeInOneLine) {
    EXPECT_EQ(run(stage("sw1--sw2")),
              "STREAM  CLASS  KBPS   LISTENER  STATE     LATENCY   PATH\n"
              "main    A      13440  amp       reserved  547.2 us  foh -> sw1 -> sw2 -> sw3 -> amp\n");
    EXPECT_EQ(run(stage("sw1--sw2[headvlans=none]")),
              "STREAM  CLASS  KBPS   LISTENER  STATE   LATENCY   PATH\n"
              "main    A      13440  amp       failed  547.2 us  foh -> sw1 -> sw2 -> sw3 -> amp\n"
              "    sw2: not in VLAN 2 (code 17): the stream's frames carry VLAN 2, and the port is no member "
              "of it; mend: msrpctl set bridging/config vlanConfig/2/intf/sw1 '{\"tagged\":true}'\n");
    EXPECT_EQ(run(stage("sw1--sw2", "srClassAPriority=4")),
              "STREAM  CLASS  KBPS   LISTENER  STATE   LATENCY   PATH\n"
              "main    A      13440  amp       failed  547.2 us  foh -> sw1 -> sw2 -> sw3 -> amp\n"
              "    sw2 port sw3: outside the domain of class A (code 8): this bridge gives class A priority "
              "3, the peer gives it priority 4: its frames would lose their queue on the way; mend: priority "
              "3 for class A at the peer\n");
    EXPECT_EQ(run(stage("sw1--sw2", "", "10M")),
              "STREAM  CLASS  KBPS   LISTENER  STATE   LATENCY   PATH\n"
              "main    A      13440  amp       failed  1.692 ms  foh -> sw1 -> sw2 -> sw3 -> amp\n"
              "    sw3 port amp: insufficient bandwidth (code 1): both classes together may have 75 per cent "
              "of the 10M link, 7500 kbps; 0 are reserved, 13440 more are needed, 5940 are missing, "
              "first in line; mend: a link of 100M or more (but 2.5G and 5G)\n");
}

TEST(Latency, IsWhatTheFormulaOf8021BAGives) {
    // Frames of 102 octets: the published 243.5 us at 100 Mbit/s and 136.9 us at 1 Gbit/s.
    const auto us = [](std::uint32_t mbps, Msrp::SrClassId srClass) {
        return std::chrono::duration<double, std::micro>(
                   worstLatency({.megabitsPerSecond = mbps, .shareA = 0.75, .shareB = 0.25}, srClass,
                                {.own = 102}))
            .count();
    };
    EXPECT_NEAR(us(100, Msrp::SrClassId::SrClassA), 243.5, 0.1);
    EXPECT_NEAR(us(1000, Msrp::SrClassId::SrClassA), 136.9, 0.1);
    // 1542 x 4 + 1542 octets, 250 us less 122 octets at a quarter of the rate, 102 octets
    EXPECT_NEAR(us(100, Msrp::SrClassId::SrClassB), 493.4 + 123.4 + 211.0 + 8.2, 0.2);
}

}  // namespace
}  // namespace Plan
