/// What happens to networks, and what several runs of them tell.
#include "Plan/Compare.h"
#include "Plan/Course.h"
#include "Plan/Report.h"
#include "tests/plan/Drawn.h"

#include <gtest/gtest.h>

namespace Plan {
namespace {

using std::chrono::seconds;

constexpr const char* ring =
    "graph{ {node[kind=bridge] sw1[priority=4096] sw2 sw3} node[kind=station] foh desk amp far;"
    "sw1--sw2--sw3--sw1 foh--sw1 desk--sw2 amp--sw3[speed=\"100M\"] far--sw2; node[kind=stream]"
    "main[talker=foh listeners=\"amp far\" format=\"aaf-int24\" channels=8 rate=48000]"
    "mix[talker=desk listeners=amp size=700 class=B]}";

TEST(Course, TellsWhatEachEventDoesToStreams) {
    Network network = read(ring);
    Problems problems;
    const auto events = readScript(
        "at 9s restart sw3 500ms\nat 5s cut sw1--sw2 # the first\nat 14s more main 4; "
        "at 18s speed amp--sw3 1G; at 22s unlisten main far; at 26s flood far 20;"
        "at 30s off foh; at 34s listen mix far",
        {"here"}, network, problems);
    ASSERT_TRUE(problems.empty()) << problems.front();
    World world{network, {}};
    EXPECT_EQ(
        courseText(network, live(world, events, seconds{2}, seconds{60})),
        "at 0.0 us: everything is switched on: settled after 300.006 ms\n"
        "at 5.000 s: cut sw1--sw2: settled after 600.006 ms\n"
        "    main -> far: away for 10.000 ms\n"
        "    mix -> amp: away for 610.000 ms\n"
        "at 9.000 s: restart sw3 500ms: not settled before the next event\n"
        "    main -> amp, mix -> amp: lost: amp: no way: no links that forward lead to the talker\n"
        "    main -> far: lost: far: no way: no links that forward lead to the talker\n"
        "at 9.500 s: restart sw3 500ms, on again: settled after 300.003 ms\n"
        "    main -> amp, main -> far, mix -> amp: reserved now\n"
        "at 14.000 s: more main 4: settled after 29.2 us\n"
        "    main+1 -> amp, main+1 -> far, main+2 -> amp, main+2 -> far and 2 more: reserved now\n"
        "    main+3 -> amp: not reserved: sw3 port amp: insufficient bandwidth (code 1): both classes "
        "together may have 75 per cent of the 100M link, 75000 kbps; 64064 are reserved, 13440 more are "
        "needed, 2504 are missing, first in line; mend: srClassABandwidthPercent 78 or more (over 75 per "
        "cent for both, other traffic and the latency of streams suffer)\n"
        "    main+4 -> amp: not reserved: sw3 port amp: insufficient bandwidth (code 1): both classes "
        "together may have 75 per cent of the 100M link, 75000 kbps; 64064 are reserved, 13440 more are "
        "needed, 2504 are missing, at place 2 behind 02:00:00:01:00:01/4; mend: "
        "srClassABandwidthPercent 78 or more (over 75 per cent for both, other traffic and the latency of "
        "streams suffer)\n"
        "at 18.000 s: speed amp--sw3 1G: settled after 12.0 us\n"
        "    main -> amp, mix -> amp, main+1 -> amp, main+2 -> amp: away for 10.000 ms\n"
        "    main+3 -> amp, main+4 -> amp: reserved now\n"
        "at 22.000 s: unlisten main far: settled after 1.200 s\n"
        "    main -> far: lost: nobody asks for it\n"
        "at 26.000 s: flood far 20: settled after 6.7 us\n"
        "at 30.000 s: off foh: settled after 1.800 s\n"
        "    main -> amp, main+1 -> amp, main+2 -> amp, main+3 -> amp and 1 more: lost: amp: no way: "
        "no links that forward lead to the talker\n"
        "    main+1 -> far, main+2 -> far, main+3 -> far, main+4 -> far: lost: far: no way: no links "
        "that forward lead to the talker\n"
        "at 34.000 s: listen mix far: settled after 1.7 us\n"
        "    mix -> far: reserved now\n");
}

TEST(Course, KeepsCableAndPowerApart) {
    Network network = read(
        "graph{{node[kind=bridge] sw} node[kind=station] a b c d; a--sw--b c--sw d--sw; node[kind=stream]"
        "main[talker=a size=100]}");
    Problems problems;
    const auto events = readScript(
        "at 2s listen main b;at 3s cut b--sw;at 6s restart b;at 10s off c;at 11s mend c--sw;at 14s listen "
        "main c;"
        "at 17s on c;at 20s mend b--sw",
        {}, network, problems);
    World world{network, {}};
    EXPECT_EQ(courseText(network, live(world, events, seconds{2}, seconds{60})),
              "at 0.0 us: everything is switched on: not settled before the next event\n"
              "at 2.000 s: listen main b: not settled before the next event\n"
              "    main -> b: reserved now\n"
              "at 3.000 s: cut b--sw: settled after 600.002 ms\n"
              "    main -> b: lost: b: no way: no links that forward lead to the talker\n"
              "at 6.000 s: restart b: not settled before the next event\n"
              "at 7.000 s: restart b, on again: changes nothing\n"
              "at 10.000 s: off c: not settled before the next event\n"
              "at 11.000 s: mend c--sw: changes nothing\n"
              "at 14.000 s: listen main c: changes nothing\n"
              "    main -> c: not reserved: c: no way: no links that forward lead to the talker\n"
              "at 17.000 s: on c: settled after 6.7 us\n"
              "    main -> c: reserved now\n"
              "at 20.000 s: mend b--sw: settled after 6.7 us\n"
              "    main -> b: reserved now\n");
}

TEST(Course, NamesWhatIsWrongWithAnEvent) {
    Network network = read(
        "graph{{node[kind=bridge]a b} node[kind=station]s; a:x--b:y a--b s--a t[kind=stream talker=s "
        "size=1]}");
    Problems problems;
    (void)readScript(
        "cut a--b;at 5 cut a--b;at 5s cut a--b;at 5s cut a:x--b;at 5s cut a--s;at 5s speed a--s 3G;at 5s "
        "loss a--s 2;"
        "at 5s burn s;at 5s off u;at 5s listen t a;\n# was: at 1s; cut a--b\n  at 5s more \"t\" 0;at 5s talk "
        "t \"t u\"",
        {"here", 1}, network, problems);
    std::string all;
    for (const std::string& one : problems) all += one.substr(0, 120) + '\n';
    EXPECT_EQ(all,
              "here:1: \"cut a--b\": expected \"at TIME\" and one of: cut A--B, mend A--B, speed A--B SPEED, "
              "loss A--B SHARE, off DEVICE, o\n"
              "here:1: \"at 5 cut a--b\": \"5\" is not a time like \"500ms\" or \"5s\"\n"
              "here:1: \"at 5s cut a--b\": \"a--b\" may be one of several: name a port, \"sw2:p1--sw3\"\n"
              "here:1: \"at 5s speed a--s 3G\": \"3G\" is not one of \"unknown\" \"10M\" \"100M\" \"1G\" "
              "\"2.5G\" \"5G\" \"10G\" \"25G\" \"40G\" \"50G\" \"100G\"\n"
              "here:1: \"at 5s loss a--s 2\": \"2\" is not a share like \"0.01\" or \"1%\"\n"
              "here:1: \"at 5s burn s\": \"burn\" is not known: expected \"at TIME\" and one of: cut A--B, "
              "mend A--B, speed A--B SPEED, loss \n"
              "here:1: \"at 5s off u\": \"u\" is no device\n"
              "here:1: \"at 5s listen t a\": \"a\" is no station\n"
              "here:3: \"at 5s more t 0\": \"0\" is not a number from 1 to 16384\n"
              "here:3: \"at 5s talk t t u\": \"t u\" is too much\n");
}

TEST(Course, IsTheSameOnOneThreadAndOnThree) {
    Network network = read(ring);
    Problems problems;
    const auto events =
        readScript("at 2s loss sw2--sw3 20%;at 4s cut sw1--sw3; at 8s mend sw1--sw3; at 9s restart sw2", {},
                   network, problems);
    const auto told = [&](unsigned threads, std::uint64_t seed) {
        World world{network, {.seed = seed, .threads = threads}};
        const Course course = live(world, events, seconds{2}, seconds{60});
        return courseText(network, course) + outcomeText(network, course.end);
    };
    const std::string one = told(1, 1);
    EXPECT_EQ(one, told(3, 1));
    EXPECT_NE(one, told(1, 2)) << "a seed that decides nothing";
}

TEST(Compare, TellsWhatFitsAndWhatDiffers) {
    const Plan::Run settle = [](const Network& network) {
        World world{network, {}};
        world.runUntilQuiet(seconds{2}, seconds{60});
        return look(world);
    };
    const Network was = read(ring);
    std::string problem;
    const auto found = fit(was, 0, 100, settle, problem);
    ASSERT_TRUE(found) << problem;
    std::string slower = ring;
    slower.replace(slower.find("100M"), 4, "10M");
    const Network is = read(slower);
    EXPECT_EQ(
        fitText(was, 0, *found) + differencesText(compare(was, settle(was), is, settle(is))),
        "2 more streams like main fit; one more, and mix -> amp fails at sw3 port amp: insufficient "
        "bandwidth (code 1): both classes together may have 75 per cent of the 100M link, 75000 kbps; 53760 "
        "are reserved, 23744 more are needed, 2504 are missing, first in line; mend: "
        "srClassBBandwidthPercent 3 or more (over 75 per cent for both, other traffic and the latency of "
        "streams suffer)\n"
        "main -> amp: failed at sw3 port amp: insufficient bandwidth (code 1): both classes together may "
        "have 75 per cent of the 10M link, 7500 kbps; 0 are reserved, 13440 more are needed, 5940 are "
        "missing, first in line; mend: a link of 100M or more (but 2.5G and 5G), was "
        "reserved with 404.6 us\n"
        "mix -> amp: failed at sw3 port amp: insufficient bandwidth (code 1): both classes together may have "
        "75 per cent of the 10M link, 7500 kbps; 0 are reserved, 23744 more are needed, 16244 are missing, "
        "at place 2 behind 02:00:00:01:00:01/1; mend: a link of 100M or more (but 2.5G and "
        "5G), was reserved "
        "with 1.072 ms\n"
        "\n"
        "amp -> sw3 (amp): 10M, forwarding, class A 0/0, class B 0/0 kbps, was 100M, forwarding, class A "
        "0/0, class B 0/0 kbps\n"
        "sw1 -> sw3 (sw3): 1G, forwarding, class A 0/750000, class B 0/750000 kbps, was 1G, forwarding, "
        "class A 13440/750000, class B 23744/736560 kbps\n"
        "sw2 -> sw1 (sw1): 1G, forwarding, class A 0/750000, class B 0/750000 kbps, was 1G, forwarding, "
        "class A 0/750000, class B 23744/750000 kbps\n"
        "sw3 -> amp (amp): 10M, forwarding, class A 0/7500, class B 0/7500 kbps, was 100M, forwarding, class "
        "A 13440/75000, class B 23744/61560 kbps\n");
    EXPECT_FALSE(fit(is, 0, 100, settle, problem));
    EXPECT_EQ(problem.substr(0, 60), "stream \"main\" is not reserved for amp as it is: sw3 port amp");
}

}  // namespace
}  // namespace Plan
