#include "Control/Json.h"
#include "programs/ShowTables.h"

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
    s.records["bridging/config"] = json(R"({"bridgeMac": "02:00:00:00:00:01"})");
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
                "accumulatedLatency": 500, "failedBridgeId": "0x8000020000000001", "ingressIntf": "swp1",
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
    not to swp3: insufficient bandwidth (found by this bridge)
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
    not to swp7, swp8: no listener
00:00:00:00:00:00/2  0x2                 swp2  91:e0:f0:00:fe:02  2     A      0     1s
    talker failed: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:07)
    not to swp1: insufficient bandwidth for the traffic class (found by bridge 8000.02:00:00:00:00:07)
    not to swp3, swp7, swp8: talker not declared to this port
    not to swp4: waiting for peer's domain
    not to swp5: link down
    not to swp6: blocked by the spanning tree
)");
    EXPECT_EQ(Show::streamsText({}), "no streams\n");
}

TEST(ShowStreams, ProgramsGetTheSame) {
    const auto all = Show::streamsValue(snapshot());
    const auto& port = Show::at(all, {"0x1122334455FF0001", "ports", "swp3"});
    EXPECT_EQ(Control::jsonText(port),
              R"json({"carried":false,"reason":"insufficient bandwidth (found by this bridge)",)json"
              R"json("talker":"Failed","listener":"AskingFailed","age":10.0})json");
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
swp3  no       Failed     AskingFailed  10s  insufficient bandwidth (found by this bridge)
swp4  no       -          -             -    waiting for peer's domain
swp5  no       -          -             -    link down
swp6  no       -          -             -    blocked by the spanning tree
swp7  no       Advertise  -             -    no listener
swp8  no       Advertise  -             -    no listener
)");
}

TEST(ShowStream, IsNamedInEitherForm) {
    EXPECT_EQ(Show::parseStream("0x1122334455FF0001"), 0x1122334455FF0001U);
    EXPECT_EQ(Show::parseStream("11:22:33:44:55:ff/1"), 0x1122334455FF0001U);
    for (const char* bad : {"", "1", "11:22:33:44:55:ff", "11:22:33:44:55/1", "11:22:33:44:55:ff/65536"})
        EXPECT_EQ(Show::parseStream(bad), std::nullopt) << bad;
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
    return s;
}

TEST(ShowPorts, TellsLinkClassesBandwidthAndHealth) {
    EXPECT_EQ(
        Show::ports(twoPorts()).text(),
        R"(PORT  LINK          SPEED    STATE       CLASS A  A KBPS       CLASS B         B KBPS    RX PDUS  TX PDUS  REFUSED  MALFORMED  DROPPED
swp2  up            1G       Forwarding  Core     9088/750000  WaitingForPeer  0/790912  12       13       1        3          0
swp9  no interface  unknown  -           -        -            -               -         -        -        -        -          -
)");
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
    EXPECT_EQ(Show::counters(twoPorts()).text(), R"(PORT  COUNTER               RX  TX
swp2  listenerReady         1   0
swp2  talkerAdvertise       0   2
swp2  PDUs                  12  13
swp2  event JoinIn          5   0
swp2  event JoinMt          0   2
swp2  malformed: truncated  3   0
swp2  refused joins         1   0
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
