/// Files of networks: what is read out of them, and what is said of those that are wrong.
#include "Plan/Reader.h"
#include "Plan/Streams.h"
#include "tests/plan/Drawn.h"

#include <gtest/gtest.h>

namespace Plan {
namespace {

TEST(Reader, NamesLineAndFieldOfEverythingThatIsWrong) {
    Problems problems;
    (void)read(R"(graph g {
    streams="more.csv";
    sw1 [kind=bridge, priority=5, srClassABandwidthPercent=101]; /* a comment
    of two lines */ sw2 [kind=bridg]
    node [kind=bridge];
    sw3 [address="02:00:00:00:00:01",
         srClasABandwidthPercent=60];
    sw4 [leaveAllTime="\"soon\""];
    a [kind=station]; b [kind=station];
    a -- sw1; a -- sw3 [speed="10x",
        delay=5];
    a -- b [loss=2]; sw1 -- sw9:p [tailport="a/b"]; sw3 -- sw3; sw4 -- nobody:x;
    s1 [kind=stream, talker=sw1, size=9, channels=2];
    s2 [kind=stream, talker=a, listeners="b, a c", format="aaf-int24", rate=48000];
}
)",
               "name,talker,listeners,size,count\ns3,b,a,100,2\n\ns4,b,a\ns1,b,a,100,\n\"s,5\",b,a,100,0\n",
               problems);
    std::string all;
    for (const std::string& one : problems) all += one + '\n';
    EXPECT_EQ(all,
              "net.dot:3: node \"sw1\": priority: \"5\" is no multiple of 4096\n"
              "net.dot:3: node \"sw1\": srClassABandwidthPercent: 101 is not from 0 to 100\n"
              "net.dot:4: node \"sw2\": kind: \"bridg\" is not one of \"bridge\" \"station\" \"stream\"\n"
              "net.dot:6: node \"sw3\": has the address 02:00:00:00:00:01 of \"sw1\"\n"
              "net.dot:7: node \"sw3\": srClasABandwidthPercent: is not known here\n"
              "net.dot:8: node \"sw4\": leaveAllTime: \"soon\" is not a whole number from 0 to 4294967295\n"
              "net.dot:12: node \"sw9\": is the end of a link, and no line of its own says what it is\n"
              "net.dot:12: node \"nobody\": is the end of a link, and no line of its own says what it is\n"
              "net.dot:10: link a -- sw3: speed: \"10x\" is not one of \"unknown\" \"10M\" \"100M\" \"1G\" "
              "\"2.5G\" \"5G\" \"10G\" \"25G\" \"40G\" \"50G\" \"100G\" \"200G\" \"400G\"\n"
              "net.dot:11: link a -- sw3: delay: \"5\" is not a time like \"5us\", \"1.5ms\" or \"2s\", at "
              "most 1000 s\n"
              "net.dot:12: link a -- b: loss: \"2\" is not a share like \"0.01\" or \"1%\"\n"
              "net.dot:12: link a -- b: lies between two stations\n"
              "net.dot:12: link sw1 -- sw9: tailport: \"a/b\" is no name of 1 to 15 characters without '/'\n"
              "net.dot:12: link sw3 -- sw3: goes from a device to itself\n"
              "net.dot:9: node \"a\": a station has one link, and this one 2\n"
              "net.dot:13: stream \"s1\": talker: \"sw1\" names \"sw1\", which is no station\n"
              "net.dot:13: stream \"s1\": channels: is not known here\n"
              "net.dot:14: stream \"s2\": format: \"aaf-int24\" channels 0 is not from 1 to 1024\n"
              "net.dot:14: stream \"s2\": listeners: \"b, a c\" names its own talker \"a\"\n"
              "net.dot:14: stream \"s2\": listeners: \"b, a c\" names \"c\", which is no station\n"
              "more.csv:4: 3 values for the 5 names of the first row\n"
              "more.csv:5: stream \"s1\": comes twice\n"
              "more.csv:6: stream \"s,5\": count: \"0\" is not a whole number from 1 to 100000\n");
}

TEST(Reader, TakesWhatIsLeftOut) {
    const Network n = read(
        "graph{node[kind=bridge]sw1 sw2 node[kind=station]a b a--sw1:x sw1--sw2--b sw1--sw2[speed=\"100M\" "
        "vlans=\"3,4\"]"
        "node[kind=stream] s[talker=a listeners=b size=50 class=B count=2]}");
    std::string all;
    for (const Device& d : n.devices) all += d.name + ' ' + d.address.text() + '\n';
    for (const Link& l : n.links)
        all += n.devices[l.ends[0].device].name + ':' + l.ends[0].port + ' ' +
               n.devices[l.ends[1].device].name + ':' + l.ends[1].port + ' ' + State::enumText(l.speed) +
               " VLANs " + std::to_string(l.ends[0].vlans.size()) + '\n';
    for (const Stream& s : n.streams)
        all += s.name + ' ' + State::hexText(s.id) + ' ' + s.destination.text() + '\n';
    EXPECT_EQ(all,
              "sw1 02:00:00:00:00:01\n"
              "sw2 02:00:00:00:00:02\n"
              "a 02:00:00:01:00:01\n"
              "b 02:00:00:01:00:02\n"
              "a: sw1:x 1G VLANs 1\n"
              "sw1:sw2 sw2:sw1 1G VLANs 1\n"
              "sw2:b b: 1G VLANs 1\n"
              "sw1:p1 sw2:p1 100M VLANs 2\n"
              "s.1 0x200000100010001 91:e0:f0:00:00:00\n"
              "s.2 0x200000100010002 91:e0:f0:00:00:01\n");
}

TEST(Reader, PassesNothingOverInSilence) {
    const std::string network =
        "graph{node[kind=station] a b node[kind=bridge] sw a--sw--b node[kind=stream]";
    const std::string s = "[talker=a listeners=b ";
    const std::pair<std::string, std::string> wrong[] = {
        {"} c[kind=bridge]", "net.dot: something stands behind the end of the graph in line 1"},
        {"/* } */ } // end\n}", "net.dot: something stands behind the end of the graph in line 2"},
        {std::string(10'000, '{'), "net.dot: braces are nested more than 100 deep in line 1"},
        {"subgraph x{{vlan=7}}}",
         "net.dot:1: vlan = \"7\" stands in a part of the graph, where it means nothing"},
        {"m" + s + "size=50 count=2] \"m.1\"" + s + "size=50]}", "net.dot:1: stream \"m.1\": comes twice"},
        {"m" + s + "size=50 count=70000]}", "net.dot:1: stream \"m\": a talker has 65535 streams at most"},
        {"m" + s + "size=50 frames=256]}",
         "net.dot:1: stream \"m\": frames: \"256\" is not a whole number from 1 to 255"},
        {"m" + s + "format=crf size=50]}",
         "net.dot:1: stream \"m\": size: \"50\" stands beside a format, which says it"},
        {"node[kind=bridge] \"x y\"}",
         "net.dot:1: node \"x y\": the name of a device has no blanks, commas, semicolons, quotes, '#' or "
         "\"--\"; label=\"...\" shows another one"},
        {"node[kind=station] c c:p--sw[tailvlans=3]}",
         "net.dot:1: link c -- sw: tailport: \"p\" is of a station, whose ports have no names"},
    };
    for (const auto& [rest, problem] : wrong) {
        Problems problems;
        (void)read(network + rest, {}, problems);
        ASSERT_FALSE(problems.empty()) << rest.substr(0, 100);
        EXPECT_EQ(problems.front(), problem);
    }
    Problems problems;
    (void)read("strict " + network + '}', {}, problems);
    EXPECT_EQ(problems.front(),
              "net.dot: is strict, so that of two links between two devices one would be lost");
}

TEST(Reader, GivesOutOnlyAddressesThatNobodyAskedFor) {
    const Network n = read(
        "graph{vlan=100 node[kind=station] a b node[kind=bridge] sw a--sw:p1:n sw--b[tailport=p2] "
        "node[kind=stream "
        "talker=a listeners=b size=50] s1 s2[destination=\"91:e0:f0:00:00:00\" vlan=3] s3}");
    std::string all;
    for (const Stream& s : n.streams) all += s.destination.text() + ' ' + std::to_string(s.vlan) + ", ";
    EXPECT_EQ(all + n.links[0].ends[1].port,
              "91:e0:f0:00:00:01 100, 91:e0:f0:00:00:00 3, 91:e0:f0:00:00:02 100, p1");
    Network more = n;
    EXPECT_TRUE(addLike(more, 0, 2));
    EXPECT_EQ(more.streams.back().destination.text(), "91:e0:f0:00:00:04");
    EXPECT_FALSE(addLike(more, 0, 65'536));
    EXPECT_EQ(more.streams.size(), 5U);
}

}  // namespace
}  // namespace Plan
