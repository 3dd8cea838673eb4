/// Streams are published and withdrawn in reviews; waiting streams get their turn.
#include "tests/scenarios/Scenario.h"

namespace Sim {
namespace {

TEST_F(Scenario, ReviewsWaitForACloggedLog) {
    core();
    bool clogged = true;
    auto* log = bridge.agent().msrpAttrLogSm();
    log->sinkIs([&](const Mrp::AttrLogRecord&) { return !clogged; });
    for (int i = 0; i < 2000; ++i) log->record({});
    p1.say(advertise({}));
    quiet();
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p1\n");
    EXPECT_TRUE(bridge.status->registeredStreams().empty());
    clogged = false;
    loop.runFor(101ms);
    const auto published = bridge.status->registeredStreams(1);
    ASSERT_NE(published, nullptr);
    EXPECT_EQ(published->ingressIntf(), IntfId{"p1"});
    EXPECT_EQ(published->talkerState(IntfId{"p2"}), Msrp::TalkerState::Advertise);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1), published);

    // Withdrawn while the log is clogged, and wanted again before it drains: the record stays the same.
    clogged = true;
    for (int i = 0; i < 2000; ++i) log->record({});
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_NE(bridge.status->registeredStreams(1), nullptr);
    p1.say(advertise({}));
    settle();
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1), published);
    clogged = false;
    quiet();
    EXPECT_EQ(bridge.status->registeredStreams(1), published);
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p1\n");
}

TEST_F(Scenario, AListenerKeepsTheRecordOfATalkerThatLeftOrMoves) {
    reserve();
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(picture(), "0x1 no talker\n");
    p3.say(advertise({}));  // comes back behind another port
    EXPECT_EQ(stream1(), "0x1 SrClassA 9088 p3 -> p2");
    p1.say(advertise({}));
    EXPECT_EQ(stream1(), "0x1 SrClassA 9088 p3 -> p2") << "the first one has it";
    p3.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(picture(), all);
}

TEST_F(Scenario, RecordsTellAllOfAStreamAndNothingOfATalkerThatLeft) {
    core();
    const Talker talker{.id = 0xab, .macDa = 0x91e0f00000ab, .maxFrameSize = 200, .frames = 3, .latency = 77};
    p1.say(advertise(talker));
    settle();
    EXPECT_EQ(p3.pdus().back(), pdusOf({advertise(talker)})[0]) << "passed on with all its values";
    p2.say(listener(0xab, ListenerState::Ready));
    p3.say(listener(0xab, ListenerState::AskingFailed));
    quiet();
    const auto stream = [this] { return shown(*bridge.status->fieldValue("registeredStreams", "0xAB")); };
    const std::string first =
        "{bandwidth 46464, macDa 91:e0:f0:00:00:ab, vlanId 2, srClass SrClassA, rank 1, dataFramePriority 3, "
        "maxFrameSize 200, maxIntervalFrames 3, accumulatedLatency 77, failedBridgeId ";
    EXPECT_EQ(stream(), first +
                            "0x0, ingressIntf p1, ethGroup 91:e0:f0:00:00:ab, talkerState {p1 Advertise, p2 "
                            "Advertise, p3 Advertise}, listenerState {p1 ReadyFailed, p2 Ready, p3 "
                            "AskingFailed}, listenerStateOrig {p2 Ready, p3 AskingFailed}}");
    EXPECT_EQ(shown(*bridge.status->fieldValue("intfStatus", "p2")),
              "{linkStatus up, speedEnum 1G, portState Forwarding, srClassState {SrClassB Core, SrClassA "
              "Core}, classBandwidthAllocated {SrClassA 46464}, lvAllSent true, rxCounters {listenerReady "
              "1}, txCounters {talkerAdvertise 1}}");
    EXPECT_EQ(shown(bridge.queues->value()),
              "{agentName Msrp, configPriority 85, intfConfigPriority 85, cosToTcMap {2 4, 3 5, 4 1, 5 1, 6 "
              "2, 7 3}, intfConfig {p2 {txQueueConfig {unicast:7 {priority 2, percent 101, shapeRate 46464, "
              "guaranteedBw 535822337}}}}}");
    p1.say(failed(talker, 9, 0x1234));
    quiet();
    EXPECT_EQ(stream(),
              first +
                  "0x1234, ingressIntf p1, ethGroup 91:e0:f0:00:00:ab, talkerState {p1 Failed, p2 Failed, p3 "
                  "Failed}, listenerState {p1 AskingFailed, p2 AskingFailed, p3 AskingFailed}, "
                  "listenerStateOrig {p2 Ready, p3 AskingFailed}, talkerFailureCode {p1 9, p2 9, p3 9}}");
    p1.say(failed(talker, 9, 0x1234, Event::Lv));
    quiet();
    EXPECT_EQ(stream(),
              "{macDa 00:00:00:00:00:00, srClass SrClassA, failedBridgeId 0x0, listenerStateOrig {p2 Ready, "
              "p3 AskingFailed}}");
    for (Peer* peer : {&p2, &p3}) peer->say(listener(0xab, ListenerState::Ready, Event::Lv));
    quiet();
    p1.say(advertise(talker));
    settle();
    p1.say(advertise(talker, Event::Lv));
    quiet();
    const std::string declared =
        "talkerAdvertise 2, talkerFailed 1, talkerAdvertiseLeave 1, talkerFailedLeave 1}";
    EXPECT_EQ(counted(), "p1 rx {" + declared +
                             " tx {listenerLeave 1, listenerAskingFailed 1, listenerReady 1, "
                             "listenerReadyFailed 1}\np2 rx {listenerLeave 1, listenerReady 1} tx {" +
                             declared + "\np3 rx {listenerLeave 1, listenerAskingFailed 1} tx {" + declared +
                             "\n");
}

TEST_F(Scenario, TheLogTellsWhatIsHeardSaidAndGivenOut) {
    core();
    bridge.logClear();
    p3.say(domains(Event::Lv));
    quiet();
    p1.say(advertise({}));
    settle();
    p2.say(listener(1, ListenerState::Ready));
    settle();
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    p1.say(failed({}, 9, 0x1234));
    settle();
    p1.say(failed({}, 9, 0x1234, Event::Lv));
    quiet();
    p1.say(advertise({}));
    settle();
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.log(),
              (std::vector<std::string>{
                  "MSRP_DOMAIN_LV Domain Lv received on p3: Class: 5, Priority: 2, SrVID: 2",
                  "MSRP_SR_CLASS_TRANSITION MSRP 5 state on p3 changed from 3 to 1",
                  "MSRP_DOMAIN_LV Domain Lv received on p3: Class: 6, Priority: 3, SrVID: 2",
                  "MSRP_SR_CLASS_TRANSITION MSRP 6 state on p3 changed from 3 to 1",
                  "MSRP_TALKER_ADV_JOIN TalkerAdv Join received on p1: StreamId 0x1, failureCode 0",
                  "MSRP_LISTENER_JOIN Listener Join received on p2: StreamId 0x1, state 2",
                  "MSRP_BW_ALLOC_SUCCESS Bandwidth 9088 kbps successfully allocated for listener on p2 and "
                  "streamId 0x1",
                  "MSRP_LISTENER_JOIN Listener Join transmitted on p1: StreamId 0x1, state 2",
                  "MSRP_LISTENER_LV Listener Lv received on p2: StreamId 0x1, state 2",
                  "MSRP_BW_DEALLOC Bandwidth 9088 kbps deallocated for listener on p2 and streamId 0x1",
                  "MSRP_LISTENER_LV Listener Lv transmitted on p1: StreamId 0x1, state 0",
                  "MSRP_TALKER_FAIL_JOIN TalkerFail Join received on p1: StreamId 0x1, failureCode 9, "
                  "failedBridgeId 0x1234",
                  "MSRP_TALKER_FAIL_JOIN TalkerFail Join transmitted on p2: StreamId 0x1, failureCode 9, "
                  "failedBridgeId 0x1234",
                  "MSRP_TALKER_FAIL_LV TalkerFail Lv received on p1: StreamId 0x1, failureCode 9",
                  "MSRP_TALKER_ADV_JOIN TalkerAdv Join received on p1: StreamId 0x1, failureCode 0",
                  "MSRP_TALKER_ADV_LV TalkerAdv Lv received on p1: StreamId 0x1"}));
}

TEST_F(Scenario, ATalkerThatChangedItsAddressFreesTheOneItHeld) {
    core();
    p1.say(advertise({.id = 1, .macDa = 0x91e0f0000001}));
    settle();
    p2.say(advertise({.id = 2, .macDa = 0x91e0f0000001}));
    settle();
    p1.say(advertise({.id = 1, .macDa = 0x91e0f0000007}));  // code 16; the record keeps the first address
    settle();
    p1.say(advertise({.id = 1, .macDa = 0x91e0f0000007}, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.groups(), "2 91:e0:f0:00:00:01: p2\n");
    expectHears(p3, "Advertise 0x2\n");
}

TEST_F(Scenario, ReleasedBandwidthGoesToTheOldestStreamThatFits) {
    core();
    // 576, then 480, 192 and 96 Mbit/s on a port that offers 750.
    for (const auto& [id, frames] : std::map<std::uint64_t, std::uint16_t>{{1, 6}, {2, 5}, {3, 2}, {4, 1}}) {
        p1.say(advertise({.id = id, .macDa = 0x91e0f0000000 + id, .maxFrameSize = 1458, .frames = frames}));
        p2.say(listener(id, ListenerState::Ready));
        settle();
    }
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 672'000U);  // 1 and 4
    EXPECT_EQ(shown(bridge.waiting->value()),
              "{bandwidthFailedIntf {p2 {failedStream {0 {stream 0x2}, 1 {stream 0x3}}}}}");
    p2.say(listener(4, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 576'000U);  // neither 2 nor 3 fits beside 1
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 672'000U);  // 2, then 3
    expectHears(p1, "Listener 0x2 Ready\nListener 0x3 Ready\n");
    // Who comes back finds no room, and waits under the talker's port; who leaves gives up its place.
    const Talker first{.id = 1, .macDa = 0x91e0f0000001, .maxFrameSize = 1458, .frames = 6};
    p1.say(advertise(first, Event::Lv));
    p2.say(listener(1, ListenerState::Ready));
    quiet();
    for (const bool there : {true, false}) {
        p1.say(advertise(first, there ? Event::JoinMt : Event::Lv));
        quiet();
        EXPECT_EQ(shown(bridge.waiting->value()),
                  there ? "{bandwidthFailedIntf {p1 {failedStream {0 {stream 0x1}}}}}" : "");
    }
}

TEST_F(Scenario, BandwidthIsReleasedByWhoeverCannotUseItAnyMore) {
    core();
    const Talker big{.id = 1, .maxFrameSize = 1458, .frames = 6};
    p1.say(advertise(big));
    p3.say(advertise({.id = 2, .macDa = 0x91e0f0000002, .maxFrameSize = 1458, .frames = 5}));
    const auto begin = [&] {
        p1.say(advertise(big));
        p2.say(listener(1, ListenerState::Ready));
        settle();
        p2.say(listener(2, ListenerState::Ready));
        settle();
        EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 576'000U);
    };
    const auto end = [&] {
        settle();
        EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 480'000U) << "the other one has it";
        for (const std::uint64_t id : {1U, 2U}) p2.say(listener(id, ListenerState::Ready, Event::Lv));
        quiet();
    };
    begin();
    p2.say(listener(1, ListenerState::AskingFailed));
    end();
    begin();
    p1.say(failed(big, 9, 0x1234));
    end();
    begin();
    // Where nothing can be carried, nobody is served either.
    bridge.vlanDel(2, "p2");
    settle();
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 0U);
    bridge.vlanIs(2, "p2", true);
    settle();
    EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 576'000U);
}

TEST_F(Scenario, APortThatEntersTheClassHearsOfFailuresToo) {
    for (Peer* peer : {&p1, &p2}) peer->say(domains());
    p1.say(failed({}, 9, 0x1234));
    settle();
    p3.say(domains());
    expectHears(p3, "Failed 0x1 code 9 bridge 0x1234\n");
}

TEST_F(Scenario, TimesTellSinceWhenAPortHasItsState) {
    const auto since = [this](const char* port) {
        return static_cast<int>(10 * (Runtime::seconds(loop.now()) -
                                      bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{port})));
    };
    reserve();
    const int before = since("p2");
    p2.say(listener(1, ListenerState::AskingFailed));
    settle();
    EXPECT_LE(since("p2"), 5);
    loop.runFor(2s);
    p2.say(listener(1, ListenerState::AskingFailed));
    settle();
    EXPECT_GE(since("p2"), 25) << "a repetition is no change";
    EXPECT_LE(before, 10);
}

TEST_F(Scenario, QueuesFollowTheAllocation) {
    core();
    p1.say({advertise({}), advertise({.id = 2, .macDa = 0x91e0f0000002, .priority = 2})});
    bridge.cliConfig->srClassBBandwidthPercentIs(10);
    settle();
    p2.say({listener(1, ListenerState::Ready), listener(2, ListenerState::Ready)});
    settle();
    const Qos::TxQueue queueA{7, Qos::TxQueueType::unicast};
    const Qos::TxQueue queueB{6, Qos::TxQueueType::unicast};
    const auto config = bridge.queues->intfConfig(IntfId{"p2"});
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(config->txQueueConfig(queueB)->shapeRate().rate.value(), 4544U);
    bridge.cliConfig->shapeRateFactorIs(1.5);
    EXPECT_EQ(config->txQueueConfig(queueA)->shapeRate().rate.value(), 13632U);
    // Both classes on one queue.
    bridge.qosStatus->cosToTcIs(Cos{2}, TrafficClass{7});
    EXPECT_EQ(config->txQueueConfig(queueA)->shapeRate().rate.value(), 20448U);
    EXPECT_EQ(config->txQueueConfig(queueB), nullptr);
    // A rate that no queue takes: the reservation stands, the queue goes without.
    bridge.cliConfig->shapeRateFactorIs(0.0);
    EXPECT_TRUE(bridge.queues->intfConfig().empty());
    EXPECT_EQ(bridge.stream(1), reserved);
    bridge.cliConfig->shapeRateFactorIs(1.0);
    EXPECT_FALSE(bridge.queues->intfConfig().empty());
    bridge.cliConfig->shapingDisabledIs(true);
    EXPECT_TRUE(bridge.queues->intfConfig().empty());
}

TEST(Standby, PublishesNothing) {
    Runtime::VirtualLoop time;
    Bridge second{time, {"q1", "q2"}};
    const auto redundancy = second.database().entityIs<Redundancy::RedundancyStatus>("redundancy/status");
    redundancy->modeIs(Redundancy::Mode::standby);
    Peer peer{second, "q1"};
    const Peer other{second, "q2"};
    second.start();
    second.config->intfEnableIs(IntfId{"q2"}, false);
    time.runFor(30s);
    EXPECT_EQ(peer.frames(), 0U);
    EXPECT_TRUE(second.status->intfStatus().empty());
    EXPECT_EQ(second.groupConfig->fdbConfigPriority(), 0U);
    redundancy->modeIs(Redundancy::Mode::active);
    time.runFor(1s);
    EXPECT_EQ(peer.frames(), 0U) << "the critical services are not complete";
    redundancy->eventIs("CriticalServices", true);
    time.runFor(1s);
    EXPECT_NE(peer.registered().find("Domain 6"), std::string::npos);
    EXPECT_EQ(second.groupConfig->fdbConfigPriority(), 100U);
    EXPECT_EQ(other.frames(), 0U) << "disabled meanwhile";
    second.stop();
    second.start();
    EXPECT_TRUE(second.status->msrpEnabled()) << "active from the beginning";
    EXPECT_DEATH(redundancy->modeIs(Redundancy::Mode::simplex), "Unexpected redundancy mode");
}

TEST(Lifecycle, AnAgentDoesNotStartWithoutARecordThatItNeeds) {
    for (const char* path :
         {"msrp/cliConfig", "msrp/config", "msrp/status", "mrp/config", "mrp/status", "bridging/config",
          "qos/status", "qos/hardware/status/global", "bridging/input/config/msrp",
          "bridging/topology/config", "stp/status", "switch/refusals", "switch/time"}) {
        Runtime::VirtualLoop time;
        Bridge bridge{time, {"p1"}};
        bridge.database().entityDel(path);
        EXPECT_DEATH(bridge.start(), "mountStatus == success") << path;
    }
}

TEST_F(Scenario, WhoLooksAfterFramesLearnsWhatTalkersMaySend) {
    const auto record = bridge.database().entityIs<Switch::Streams>("switch/streams");
    const auto told = [&] {
        settle();
        return shown(record->fieldValue("stream", {}).value());
    };
    reserve();
    EXPECT_EQ(told(), "") << "nobody wants it";
    record->wantedIs(true);
    const std::string first =
        "0x1 {talkerIntf p1, macDa 91:e0:f0:00:00:01, vlanId 2, priority 3, "
        "maxFrameSize 100, kbps 9088, interval 125000}";
    EXPECT_EQ(told(), "{" + first + "}");
    p3.say(advertise({.id = 2}));  // that address is another stream's
    EXPECT_EQ(told(), "{" + first + "}");
    p1.say(advertise({}, Event::Lv));
    pass(1s);  // of the leave timer
    EXPECT_NE(told().find("0x1"), 1U);
}

}  // namespace
}  // namespace Sim
