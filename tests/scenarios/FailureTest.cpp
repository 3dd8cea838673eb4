/// Every failure code that this bridge gives, every discard, each from its cause on the wire or in the
/// records.
#include "tests/scenarios/Scenario.h"

namespace Sim {
namespace {

std::string failedLine(const std::string& id, int code) {
    return "Failed " + id + " code " + std::to_string(code) + " bridge " + selfBridge + "\n";
}

TEST_F(Scenario, AFullPortRefusesWithCode1AndTheClassWithCode3) {
    core();
    // 3 * 8 * 1500 * 8 = 288 Mbit/s fit twice into 750 Mbit/s.
    for (const std::uint64_t id : {1U, 2U, 3U}) {
        p1.say(advertise({.id = id, .macDa = 0x91e0f0000000 + id, .maxFrameSize = 1458, .frames = 3}));
        p2.say(listener(id, ListenerState::Ready));
        settle();
    }
    expectHears(p2, failedLine("0x3", 1));
    EXPECT_EQ(shown(bridge.census->value()), "{streams {reserved 2, refused 1}, failure {1 1}}");
    expectHears(p1, "Listener 0x1 Ready\nListener 0x2 Ready\nListener 0x3 AskingFailed\n");
    expectLogged(
        {"MSRP_ERROR StreamId 0x3 failed on p2 because of insufficient bandwidth. Bandwidth needed is 288000 "
         "kbps",
         "MSRP_BW_ALLOC_FAIL Bandwidth 288000 kbps allocation failed for listener on p2 and streamId 0x3"});
    // A refused admission counts as an advertise failed here and as a Talker Failed.
    EXPECT_NE(
        counted().find(
            "p2 rx {listenerReady 3} tx {talkerAdvertise 3, talkerFailed 1, talkerAdvertiseFailedHere 1}"),
        std::string::npos)
        << counted();

    // Shares of 20 and 75 per cent: class A's own share is exceeded before the joint one.
    bridge.cliConfig->srClassABandwidthPercentIs(20);
    bridge.cliConfig->srClassBBandwidthPercentIs(75);
    p3.say(listener(1, ListenerState::Ready));
    expectHears(p3, failedLine("0x1", 3));
    expectLogged({"StreamId 0x1 failed on p3 because of insufficient SR Class A bandwidth"});
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 288000 p1 -> p2");
    expectHears(p1, "Listener 0x1 ReadyFailed\n");
    EXPECT_EQ(shown(bridge.census->value()),
              "{streams {reserved 1, partlyReserved 1, refused 1}, failure {1 1, 3 1}}");
}

TEST_F(Scenario, ATakenAddressFailsWithCode5) {
    core();
    p1.say(advertise({.id = 1}));
    settle();
    p2.say(advertise({.id = 2}));  // the same address
    EXPECT_EQ(picture(), waiting + "\n0x2 SrClassA 9088 p2 -> no group\np1 " + failedLine("0x2", 5) +
                             "p2 Advertise 0x1\np3 Advertise 0x1\np3 " + failedLine("0x2", 5));
    const std::string line = "StreamId 0x2 TalkerAdvJoin on p2 with Mac DA 91:e0:f0:00:00:01 already in use ";
    expectLogged({line + "on Vlan 2", line + "by streamId 0x1"});
    EXPECT_EQ(shown(bridge.census->value()), "{streams {talkerFailed 1, offered 1}, failure {5 1}}");
    EXPECT_NE(counted().find("p2 rx {talkerAdvertise 1, talkerAdvertiseFailedHere 1} tx"), std::string::npos);

    EXPECT_EQ(shown(bridge.waiting->value()),
              "{macDaBlocked {91:e0:f0:00:00:01 {failedStream {0 {stream 0x2}}}}}");

    p1.say(advertise({.id = 1}, Event::Lv));
    quiet();
    EXPECT_EQ(picture(), "0x2 SrClassA 9088 p2 -> p2\np1 Advertise 0x2\np3 Advertise 0x2\n");
    p3.say(advertise({.id = 3}));
    expectLogged(
        {"StreamId 0x3 TalkerAdvJoin on p3 with Mac DA 91:e0:f0:00:00:01 already in use by streamId 0x2"});
}

TEST_F(Scenario, ChangesOfAKnownTalkerFailWithCodes7And16AndLargeFramesWithCode14) {
    core();
    p1.say(advertise({}));
    settle();
    p1.say(advertise({.maxFrameSize = 200, .latency = 5}));  // both changed: latency is told
    EXPECT_EQ(picture(), waiting + "\np2 " + failedLine("0x1", 7) + "p3 " + failedLine("0x1", 7));
    p1.say(advertise({.maxFrameSize = 200}));
    EXPECT_EQ(picture(), waiting + "\np2 " + failedLine("0x1", 16) + "p3 " + failedLine("0x1", 16))
        << "as first registered";
    p1.say(advertise({}));
    EXPECT_EQ(picture(), nobodyListens);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1)->failedBridgeId(), 0U);
    expectLogged({"MSRP_TALKER_ADV_JOIN TalkerAdv Join transmitted on p2: StreamId 0x1, failureCode 0"});
    p1.say({advertise({.id = 8, .macDa = 0x91e0f0ffffff, .maxFrameSize = 1500}),
            advertise({.id = 9, .macDa = 0x91e0f0000009, .maxFrameSize = 1501})});
    expectHears(p2, "Advertise 0x8\n" + failedLine("0x9", 14));
}

TEST_F(Scenario, VlansFailWithCode17Before18) {
    core();
    bridge.vlanDel(2, "p2");
    bridge.vlanIs(2, "p3", false);
    p1.say({advertise({}), advertise({.id = 9, .macDa = 0x91e0f0000009, .vlan = 77})});
    expectHears(p2, failedLine("0x1", 17));
    expectHears(p3, failedLine("0x1", 18));
    expectHears(p3, failedLine("0x9", 17));
    expectLogged({"MSRP_ERROR StreamId 0x1 Vlan 2 is not configured on p2",
                  "MSRP_ERROR StreamId 0x1 Vlan tagging is disabled on p3 for vlan 2"});
    EXPECT_GE(bridge.logged("MSRP_ERROR StreamId 0x9 Vlan 77 is not configured"), 1U);

    // Membership comes back, and goes again.
    bridge.vlanIs(2, "p2", true);
    bridge.vlanIs(2, "p3", true);
    expectHears(p3, "Advertise 0x1\n");
    p2.say(listener(1, ListenerState::Ready));
    EXPECT_EQ(stream1(), reserved);
    bridge.vlanIs(2, "p2", false);
    expectHears(p2, failedLine("0x1", 18));
    EXPECT_EQ(bridge.stream(1), waiting);
    bridge.vlanDel(2, "p2");
    expectHears(p2, failedLine("0x1", 17));
    bridge.vlanIs(2, "p2", true);
    EXPECT_EQ(stream1(), reserved);
}

TEST_F(Scenario, TalkerAdvertisesAreDiscardedWithTheirReasons) {
    p1.say(domains());
    settle();
    for (const Talker& talker : std::initializer_list<Talker>{{.vlan = 0},
                                                              {.vlan = 4095},
                                                              {.id = 2, .macDa = 0x020000000002},
                                                              {.id = 3, .macDa = 0x01005e000001},
                                                              {.id = 4, .priority = 5}})
        p1.say(advertise(talker));
    expectLogged(
        {"MSRP_ERROR Discard vlanId 0 out of range", "MSRP_ERROR Discard vlanId 4095 out of range",
         "MSRP_ERROR Discard streamId 0x2 TalkerAdvJoin on p1 with non-multicast Mac DA 02:00:00:00:00:02",
         "MSRP_ERROR Discard streamId 0x3 TalkerAdvJoin on p1 with Mac DA: 01:00:5e:00:00:01  not in the "
         "range 91:e0:f0:00:00:00 - 91:e0:f0:ff:ff:ff",
         "MSRP_ERROR Discard streamId 0x4 TalkerAdvJoin on p1 with non SR Class priority 5"});
    EXPECT_EQ(bridge.rx("p1", 5), 4U + 1U);
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_TRUE(bridge.groupConfig->fdbConfig().empty());

    p2.say({advertise({.id = 0xABCDEF}), listener(7, ListenerState::Ready)});  // no domain on p2
    expectLogged({"Discard streamId 0xABCDEF TalkerAdvJoin on p2 since SrClassA is WaitingForPeer",
                  "Discard streamId 0x7 ListenerJoin on p2 as MSRP is inactive on port"});
    EXPECT_EQ(bridge.rx("p2", 15), 1U);

    p1.say(advertise({.id = 5}));
    p2.say(domains());
    settle();
    p2.say(advertise({.id = 5}));
    p1.say(listener(5, ListenerState::Ready));
    expectLogged({"Discard streamId 0x5 TalkerAdvJoin on p2 since streamId is already in use on p1",
                  "Discard streamId 0x5 ListenerJoin received on same interface p1 as Talker"});
}

TEST_F(Scenario, TalkerFailedIsPassedOnOrDiscarded) {
    core();
    p1.say({failed({.vlan = 0}, 1), failed({.id = 2, .vlan = 4095}, 1),
            failed({.id = 3, .macDa = 0x020000000002}, 1), failed({.id = 4, .macDa = 0x91e0f1000000}, 1),
            failed({.id = 5, .priority = 7}, 1)});
    settle();
    EXPECT_EQ(bridge.streams(), "");
    // The first is reported once, and nothing stops.
    expectLogged({"VlanId::value < 1 or > 4094 not allowed",
                  "TalkerFailedJoin on p1 with non-multicast Mac DA 02:00:00:00:00:02",
                  "TalkerFailedJoin on p1 with Mac DA: 91:e0:f1:00:00:00  not in the range 91:e0:f0:00:00:00 "
                  "-91:e0:f0:ff:ff:ff",
                  "TalkerFailedJoin on p1 with non SR Class priority 7"});
    EXPECT_EQ(bridge.rx("p1", 6), 3U);

    const Talker talker{.id = 6, .maxFrameSize = 0, .frames = 0x0101};
    const std::string record = "0x6 SrClassA " + std::to_string(0x101 * 8 * 42 * 8) + " p1 -> ";
    p2.say(listener(6, ListenerState::Ready));
    p1.say(failed(talker, 11, 0x1234));
    settle();
    EXPECT_EQ(bridge.stream(6), record + "p1");
    expectHears(p2, "Failed 0x6 code 11 bridge 0x1234\n");
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(6)->maxIntervalFrames(), 1U);
    p1.say(advertise(talker));
    EXPECT_EQ(picture(), record + "p2\np1 Listener 0x6 Ready\np2 Advertise 0x6\np3 Advertise 0x6\n");
    p1.say(failed(talker, 12, 0x1234));
    EXPECT_EQ(picture(), record +
                             "p1\np1 Listener 0x6 AskingFailed\np2 Failed 0x6 code 12 bridge 0x1234\n"
                             "p3 Failed 0x6 code 12 bridge 0x1234\n");
    EXPECT_GE(bridge.logged("MSRP_TALKER_FAIL_JOIN TalkerFail Join transmitted on p2: StreamId 0x6, "
                            "failureCode 12, failedBridgeId 0x1234"),
              1U);
    p1.say(failed(talker, 12, 0x1234, Event::Lv));
    p2.say(listener(6, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(picture() + bridge.groups(), "");
}

TEST_F(Scenario, LeavesAndDomainsAreDiscardedWithTheirReasons) {
    auto& sm = *bridge.agent().msrpSm();
    const IntfId a{"p1"};
    const IntfId b{"p2"};
    core();
    p1.say(advertise({}));
    p3.say(listener(9, ListenerState::Ready));
    quiet();
    const auto attribute = sm.streamDataTalkerAttribute(1);
    Msrp::MsrpTalkerAdvertiseAttribute unknown;
    unknown.streamIdIs(0xF);
    Msrp::MsrpTalkerAdvertiseAttribute heard;
    heard.streamIdIs(9);
    const auto failedOf = [](const auto& of) {
        return Msrp::MsrpTalkerFailedAttribute{of, 0, Msrp::TalkerFailureCode{1}};
    };
    sm.processTalkerAdvertiseLeave(a, unknown);
    sm.processTalkerAdvertiseLeave(b, heard);
    sm.processTalkerAdvertiseLeave(b, attribute);
    sm.processTalkerFailedLeave(a, failedOf(unknown));
    sm.processTalkerFailedLeave(b, failedOf(attribute));
    sm.processTalkerFailedLeave(a, failedOf(attribute));
    sm.processTalkerFailedJoin(b, failedOf(attribute));
    sm.processListenerLeave(b, {0xF, ListenerState::Ready});
    sm.processListenerLeave(a, {1, ListenerState::Ready});
    sm.processListenerLeave(b, {1, ListenerState::Ready});
    p1.say(domain(SrClassId{4}, 1));
    settle();
    sm.processDomainVectorLeave(a, {SrClassId{4}, 1, 2});
    bridge.cliConfig->srClassBSupportedIs(false);
    auto again = domains();
    again.push_back(advertise({}));
    p1.say(again, true);
    settle();
    sm.processDomainVectorLeave(a, {SrClassId::SrClassB, 2, 2});
    EXPECT_EQ(bridge.mrpStatus->intf(a)->refusedJoins(), 2U);
    p1.say(advertise({.id = 2, .macDa = 0x91e0f0000002, .priority = 2}));
    expectLogged({"TalkerAdvLv on p1 as stream doesn't exist", "ListenerLv on p2 as stream doesn't exist",
                  "TalkerAdv is not registered", "Listener is not registered", "prev state was 1",
                  "ingress port p1 is different", "ListenerLv received on same interface p1 as Talker",
                  "TalkerAdvJoin on p1 since SrClassB is NotSupported"});
    expectLogged({"MSRP_ERROR Discard DomainVectorJoin on p1 as SR Class 4 is invalid",
                  "MSRP_ERROR Discard DomainVectorJoin on p1 as SrClassB is not supported"},
                 2);
    EXPECT_EQ(bridge.rx("p2", 7), 2U);
    EXPECT_EQ(bridge.rx("p1", 8), 2U);
    EXPECT_EQ(bridge.rx("p2", 13), 2U);
    EXPECT_EQ(bridge.stream(1), waiting) << "nothing has changed";

    p1.say(failed({}, 1));
    settle();
    sm.processTalkerAdvertiseLeave(a, attribute);
    expectLogged({"Discard streamId 0x1 TalkerAdvLv on p1 since prev state was 2"});
}

/// A talker's two kinds of declaration replace each other, whether they were taken or not.
TEST_F(Scenario, OfARefusedTalkerTheKindDeclaredLastCounts) {
    const auto said = [](std::uint64_t id) { return Talker{.id = id, .macDa = 0x91e0f0000000 + id}; };
    const auto changeBothWays = [&](std::uint64_t first) {
        p1.say({failed(said(first), 9), advertise(said(first + 1))});
        p1.say({advertise(said(first)), failed(said(first + 1), 9)});
        p1.say({failed(said(first), 9, 0, Event::Lv), advertise(said(first + 1), Event::Lv)});
        quiet();
    };
    p2.say(domains());
    p3.say(domains());
    settle();
    changeBothWays(1);  // before the Domain
    p1.say(domains());
    expectHears(p2, "Advertise 0x1\nFailed 0x2 code 9 ");
    p3.say({advertise(said(3)), advertise(said(4))});
    settle();
    changeBothWays(3);  // while another port has the streams
    p3.say({advertise(said(3), Event::Lv), advertise(said(4), Event::Lv)});
    quiet();
    expectHears(p2, "Advertise 0x3\nFailed 0x4 code 9 ");
}

TEST_F(Scenario, WhatIsRefusedBesideANewDomainIsOfferedAndCountedOnce) {
    p2.say(domains());
    settle();
    p2.say(advertise({}));
    settle();
    std::vector<Say> everything = domains();
    everything.push_back(advertise({}));  // p2 has that stream
    p1.say(everything);
    settle();
    EXPECT_EQ(bridge.rx("p1", 5), 1U);
    bridge.cliConfig->srClassAPriorityIs(
        4);  // the ports begin anew, and what p1 says is wrong in another way
    loop.runFor(1s);
    p1.say(everything);
    expectLogged({"Discard streamId 0x1 TalkerAdvJoin on p1 with non SR Class priority 3"});
    EXPECT_EQ(bridge.rx("p1", 5), 2U);
}

TEST_F(Scenario, AListenerOnAPortOutsideTheStreamsClassIsDiscarded) {
    p1.say(domains());
    p2.say(domain(SrClassId::SrClassB, 2));
    settle();
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    expectLogged({"Discard streamId 0x1 ListenerJoin on p2 as SrClassA is WaitingForPeer"});
    EXPECT_EQ(bridge.rx("p2", 15), 1U);
    // The Domain that was missing arrives: what was refused is offered again.
    p2.say(domain(SrClassId::SrClassA, 3));
    EXPECT_EQ(stream1(), reserved);
}

}  // namespace
}  // namespace Sim
