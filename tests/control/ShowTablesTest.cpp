#include "Control/Json.h"
#include "Show/Reservations.h"

#include <gtest/gtest.h>
#include <string>

namespace {

State::Value json(std::string_view text) {
    auto result = Control::parseJson(text);
    EXPECT_FALSE(result.problem) << result.problem->what;
    return std::move(result.value);
}

/// A bridge with a talker on swp1: one stream that swp2 carries, one that failed before it came here.
Show::Snapshot snapshot() {
    Show::Snapshot s;
    s.now = 1000.0;
    s.records["msrp/config"] = json(R"({"intfEnable": {"swp1": true, "swp2": true, "swp3": true, "swp4": true,
        "swp5": true, "swp6": true, "swp7": true, "swp8": true, "off": false}})");
    s.records["linux/config"] = json(R"({"bridge": "br0"})");
    s.records["bridging/config"] = json(R"({"bridgeMac": "02:00:00:00:00:01", "switchIntfConfig": {
        "swp1": {}, "swp2": {}, "swp3": {}, "swp4": {}, "swp5": {}, "swp6": {}, "swp7": {}}})");
    s.records["bridging/input/config/msrp"] = json(R"({"fdbConfig": {"2": {"ethGroup": {
        "91:e0:f0:00:fe:01": {"intf": {"swp2": true, "swp3": false}}}}}})");
    s.records["msrp/status"] = json(R"({
        "intfStatus": {
            "swp1": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "Core", "SrClassB": "Core"}},
            "swp2": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "Core", "SrClassB": "WaitingForPeer"},
                     "classBandwidthAllocated": {"SrClassA": 9088, "SrClassB": 0},
                     "rxCounters": {"talkerAdvertise": 0, "listenerReady": 1},
                     "txCounters": {"talkerAdvertise": 2, "listenerReady": 0}},
            "swp3": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "Core"}},
            "swp4": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "WaitingForPeer"}},
            "swp5": {"linkStatus": "down", "portState": "Blocked", "srClassState": {"SrClassA": "NotSupported"}},
            "swp6": {"linkStatus": "up", "portState": "Blocked", "srClassState": {"SrClassA": "NotSupported"}},
            "swp7": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "Core"}},
            "swp8": {"linkStatus": "up", "portState": "Forwarding", "srClassState": {"SrClassA": "Core"}}},
        "registeredStreams": {
            "0x1122334455FF0001": {"bandwidth": 9088, "macDa": "91:e0:f0:00:fe:01", "vlanId": 2, "srClass": "SrClassA",
                "rank": 1, "dataFramePriority": 3, "maxFrameSize": 100, "maxIntervalFrames": 1,
                "accumulatedLatency": 500, "failedBridgeId": "0x8000020000000001", "ingressIntf": "swp1", "ethGroup": "91:e0:f0:00:fe:01",
                "talkerState": {"swp1": "Advertise", "swp2": "Advertise", "swp3": "Failed", "swp7": "Advertise", "swp8": "Advertise"},
                "listenerState": {"swp1": "ReadyFailed", "swp2": "Ready", "swp3": "AskingFailed"},
                "talkerFailureCode": {"swp3": 1},
                "statusTime": {"swp1": 900.0, "swp2": 988.0, "swp3": 990.0}},
            "0x2": {"bandwidth": 0, "macDa": "91:e0:f0:00:fe:02", "vlanId": 2, "srClass": "SrClassA",
                "failedBridgeId": "0x8000020000000007", "ingressIntf": "swp2",
                "talkerState": {"swp2": "Failed", "swp1": "Failed"}, "talkerFailureCode": {"swp2": 3, "swp1": 3},
                "statusTime": {"swp2": 999.0}}}})");
    return s;
}

TEST(ShowStreams, TellsWhoCarriesAStreamAndWhyTheOthersDoNot) {
    EXPECT_EQ(Show::streamsText(snapshot()),
              R"(STREAM               ID                  FROM  DESTINATION        VLAN  CLASS  KBPS  AGE
11:22:33:44:55:ff/1  0x1122334455FF0001  swp1  91:e0:f0:00:fe:01  2     A      9088  1m40s
    to swp2 (12s)
    not to swp3: insufficient bandwidth (found by this bridge), 9088 kbps missing, looked at again when its talker repeats it
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
    not to swp7: no listener
    not to swp8: not a port of bridge br0
00:00:00:00:00:00/2  0x2                 swp2  91:e0:f0:00:fe:02  2     A      0     1s
    talker failed: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:07)
    not to swp1: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:07)
    not to swp3, swp7: talker not declared to this port
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
    not to swp8: not a port of bridge br0
)");
    EXPECT_EQ(Show::streamsText({}), "no streams\n");
}

/// Two ports of which one has no interface behind it.
Show::Snapshot twoPorts() {
    Show::Snapshot s = snapshot();
    s.records["msrp/config"] = json(R"({"intfEnable": {"swp2": true, "swp9": true}})");
    s.records["msrp/cliConfig"] = json(R"({"srPvid": {"swp9": 7}, "defaultSrPvid": 2, "srClassAPriority": 3,
        "srClassBPriority": 2, "srClassABandwidthPercent": 75, "srClassBBandwidthPercent": 5})");
    s.records["interface/status/eth/intf"] = json(R"({"intf": {"swp2": true}})");
    s.records["interface/status/eth/phy/all"] = json(
        R"({"intfStatus": {"swp2": {"linkStatus": "up", "speedEnum": "1G"}, "swp9": {"linkStatus": "down", "speedEnum": "unknown"}}})");
    s.records["mrp/status"] = json(R"({"intf": {"swp2": {"rxPdus": 12, "txPdus": 13, "refusedJoins": 1,
        "rangeErrors": 0, "droppedRegistrations": 0, "rxEvents": {"New": 0, "JoinIn": 5}, "txEvents": {"JoinMt": 2},
        "malformed": {"truncated": 3, "other": 0}}}})");
    s.records["linux/packets"] = json(R"({"intf": {"swp2": {"receiveDropped": 4, "sendDropped": 0}}})");
    return s;
}

/// Streams that wait on swp2 for bandwidth (5 in front of 4) and for an address (7 in front of 8); 6, too,
/// but it was refused when it was declared; and the talkers' port is swp1.
Show::Snapshot waiting() {
    Show::Snapshot s = twoPorts();
    s.records["msrp/config"] = json(R"({"intfEnable": {"swp1": true, "swp2": true}})");
    s.records["msrp/cliConfig"] = json(R"({"srClassABandwidthPercent": 1, "srClassBBandwidthPercent": 0})");
    s.records["bridging/input/config/msrp"] =
        json(R"({"fdbConfig": {"2": {"ethGroup": {"91:e0:f0:00:fe:03": {"intf": {"swp2": true}}}}}})");
    s.records["qos/input/config/msrp"] = json(
        R"({"intfConfig": {"swp1": {"txQueueConfig": {"unicast:5": {"shapeRate": 1}}}, "swp2": {"txQueueConfig": {
        "unicast:5": {"shapeRate": 9088}, "unicast:4": {"shapeRate": 500}}}}})");
    s.records["linux/capabilities"] = json(R"({"shaping": {"swp1": {"shaper": "none", "why": "not wanted"},
        "swp2": {"shaper": "htb", "why": "too few transmit queues"}}})");
    s.records["msrp/waiting"] = json(R"({
        "bandwidthFailedIntf": {
            "swp1": {"failedStream": {"7": {"stream": "0x6", "since": 960.0}}},
            "swp2": {"failedStream": {"3": {"stream": "0x5", "since": 970.0}, "4": {"stream": "0x4", "since": 980.0},
                                      "9": {"stream": "0x5", "since": 990.0}}}},
        "macDaBlocked": {"91:e0:f0:00:fe:03": {"failedStream": {
            "0": {"stream": "0x7", "since": 400.0}, "1": {"stream": "0x8", "since": 940.0}}}}})");
    State::Object streams;
    const auto add = [&](const std::string& id, const std::string& address, const std::string& rest) {
        streams.emplace_back(
            id, json(R"({"bandwidth": 2000, "vlanId": 2, "srClass": "SrClassA", "ingressIntf": "swp1",
            "failedBridgeId": "0x8000020000000001", "macDa": ")" +
                     address + "\", " + rest + "}"));
    };
    const std::string refused = R"("talkerState": {"swp1": "Advertise", "swp2": "Failed"},
        "listenerState": {"swp2": "AskingFailed"}, "talkerFailureCode": {"swp2": 1})";
    const std::string blocked = R"("talkerState": {"swp1": "Advertise", "swp2": "Failed"},
        "talkerFailureCode": {"swp1": 5, "swp2": 5})";
    add("0x3", "91:e0:f0:00:fe:03",
        R"("ethGroup": "91:e0:f0:00:fe:03", "talkerState": {"swp1": "Advertise"})");
    for (const char* id : {"0x4", "0x5", "0x6"}) add(id, "91:e0:f0:00:fe:04", refused);
    for (const char* id : {"0x7", "0x8"}) add(id, "91:e0:f0:00:fe:03", blocked);
    State::Object status = *s.records["msrp/status"].object();
    status.emplace_back("registeredStreams", streams);
    s.records["msrp/status"] = status;
    return s;
}

TEST(ShowStreams, TellsWhoWaitsBehindWhomAndWhatIsMissing) {
    EXPECT_EQ(Show::streamsText(waiting()),
              R"(STREAM               ID   FROM  DESTINATION        VLAN  CLASS  KBPS  AGE
00:00:00:00:00:00/3  0x3  swp1  91:e0:f0:00:fe:03  2     A      2000  -
    to swp2 (-)
00:00:00:00:00:00/4  0x4  swp1  91:e0:f0:00:fe:04  2     A      2000  -
    not to swp2: insufficient bandwidth (found by this bridge), 1088 kbps missing, waiting for 20s at place 2 behind 00:00:00:00:00:00/5
00:00:00:00:00:00/5  0x5  swp1  91:e0:f0:00:fe:04  2     A      2000  -
    not to swp2: insufficient bandwidth (found by this bridge), 1088 kbps missing, waiting for 30s, first in line
00:00:00:00:00:00/6  0x6  swp1  91:e0:f0:00:fe:04  2     A      2000  -
    not to swp2: insufficient bandwidth (found by this bridge), 1088 kbps missing, waiting for 40s, looked at again when its talker repeats it
00:00:00:00:00:00/7  0x7  swp1  91:e0:f0:00:fe:03  2     A      2000  -
    talker failed: stream destination address already in use (found by this bridge), held by 00:00:00:00:00:00/3, waiting for 10m00s, first in line
    not to swp2: stream destination address already in use (found by this bridge)
00:00:00:00:00:00/8  0x8  swp1  91:e0:f0:00:fe:03  2     A      2000  -
    talker failed: stream destination address already in use (found by this bridge), held by 00:00:00:00:00:00/3, waiting for 1m00s at place 2 behind 00:00:00:00:00:00/7
    not to swp2: stream destination address already in use (found by this bridge)
)");
    EXPECT_EQ(
        Control::jsonText(Show::at(Show::streamsValue(waiting()), {"0x4", "ports", "swp2"})),
        R"json({"carried":false,"reason":"insufficient bandwidth (found by this bridge), 1088 kbps missing, )json"
        R"json(waiting for 20s at place 2 behind 00:00:00:00:00:00/5","talker":"Failed","listener":"AskingFailed",)json"
        R"json("age":null,"waiting":{"age":20.0,"place":2,"behind":"0x5","heldBy":null,"missingKbps":1088}})json");
}

TEST(ShowPorts, TellsQueuesAndWhoWaitsInTheOrderInWhichTheyAreTried) {
    EXPECT_EQ(
        Show::ports(waiting()).text(),
        R"(PORT  LINK          SPEED  STATE       CLASS A  A KBPS      CLASS B         B KBPS  SHAPED KBPS                    WAITING  RX PDUS  TX PDUS  REFUSED  MALFORMED  DROPPED
swp1  no interface  -      Forwarding  Core     0/0         Core            0/0     none                           2        -        -        -        -          -
    queues are not shaped: not wanted
    00:00:00:00:00:00/7 wants its address, held by 00:00:00:00:00:00/3, waiting for 10m00s, first in line
    00:00:00:00:00:00/8 wants its address, held by 00:00:00:00:00:00/3, waiting for 1m00s at place 2 behind 00:00:00:00:00:00/7
swp2  up            1G     Forwarding  Core     9088/10000  WaitingForPeer  0/912   unicast:5 9088, unicast:4 500  3        12       13       1        3          0
    00:00:00:00:00:00/5 wants bandwidth, 1088 kbps missing, waiting for 30s, first in line
    00:00:00:00:00:00/4 wants bandwidth, 1088 kbps missing, waiting for 20s at place 2 behind 00:00:00:00:00:00/5
    00:00:00:00:00:00/6 wants bandwidth, 1088 kbps missing, waiting for 40s, looked at again when its talker repeats it
)");
}

TEST(ShowStream, TellsAllAboutOne) {
    EXPECT_EQ(Show::streamText(Show::streamReports(snapshot()).front()),
              R"(stream       11:22:33:44:55:ff/1 (0x1122334455FF0001)
talker       swp1, Advertise since 1m40s
destination  91:e0:f0:00:fe:01, VLAN 2
class        A, priority 3, rank 1
bandwidth    9088 kbps (1 frames of at most 100 octets in an interval)
latency      500 ns up to here
PORT  CARRIED  TALKER     LISTENER      AGE  WHY NOT
swp2  yes      Advertise  Ready         12s  -
swp3  no       Failed     AskingFailed  10s  insufficient bandwidth (found by this bridge), 9088 kbps missing, looked at again when its talker repeats it
swp4  no       -          -             -    waiting for peer's domain
swp5  no       -          -             -    link down
swp6  no       -          -             -    blocked by the spanning tree
swp7  no       Advertise  -             -    no listener
swp8  no       Advertise  -             -    not a port of bridge br0
)");
}

TEST(ShowStream, IsNamedInEitherForm) {
    EXPECT_EQ(Show::parseStream("0x1122334455FF0001"), 0x1122334455FF0001U);
    EXPECT_EQ(Show::parseStream("11:22:33:44:55:ff/1"), 0x1122334455FF0001U);
    for (const char* bad : {"", "1", "11:22:33:44:55:ff", "11:22:33:44:55/1", "11:22:33:44:55:ff/65536"})
        EXPECT_EQ(Show::parseStream(bad), std::nullopt) << bad;
}

TEST(ShowDomain, TellsWhatEachPortDeclares) {
    EXPECT_EQ(Show::domain(twoPorts()).text(), R"(PORT  CLASS  STATE           PRIORITY  SR PVID
swp2  A      Core            3         2
swp2  B      WaitingForPeer  2         2
swp9  A      -               3         7
swp9  B      -               2         7
)");
    EXPECT_EQ(Control::jsonText(Show::at(Show::domain(twoPorts()).value(), {"swp2", "B"})),
              R"({"state":"WaitingForPeer","priority":2,"srPvid":2})");
}

TEST(ShowCounters, LeavesOutWhatIsZero) {
    EXPECT_EQ(Show::counters(twoPorts()).text(), R"(PORT  COUNTER                    RX  TX
swp2  listenerReady              1   0
swp2  talkerAdvertise            0   2
swp2  PDUs                       12  13
swp2  event JoinIn               5   0
swp2  event JoinMt               0   2
swp2  malformed: truncated       3   0
swp2  refused joins              1   0
swp2  frames the kernel dropped  4   0
)");
}

TEST(ShowLog, TellsHowOldALineIs) {
    Show::Snapshot s;
    s.now = 100'000.0;
    s.records["log"] =
        json(R"({"line": {"8": {"time": 1.0, "text": "a"}, "9": {"time": 99990.5, "text": "b"}}})");
    EXPECT_EQ(Show::logText(s), "AGE    LINE\n1d03h  a\n9s     b\n");
}

}  // namespace
