/// Ports come, go and change: domains, links, spanning tree, speeds, configuration.
#include "Mrp/AttributeRecords.h"
#include "Runtime/Text.h"
#include "tests/scenarios/Scenario.h"

namespace Sim {
namespace {

using Bridging::Topology::PortState;

/// Stream 1 from p1 to p2, reserved.
class ReservedStream : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        reserve();
    }
    void portIs(const char* topology, const char* port, PortState state) {
        bridge.topology->topoConfigIs(topology)->topoPortConfigIs(IntfId{port})->stateIs(state);
    }
    void allForward(std::initializer_list<const char*> topologies) {
        for (const char* topology : topologies) {
            for (const char* port : {"p1", "p2", "p3"}) portIs(topology, port, PortState::forwarding);
        }
    }
    [[nodiscard]] std::string whoWait() { return shown(bridge.database().entity("msrp/waiting")->value()); }
    void someWait() {
        // One that waits for the address of another, and one for bandwidth.
        p1.say({advertise({.id = 2}),
                advertise({.id = 3, .macDa = 0x91e0f0000003, .maxFrameSize = 1500, .frames = 9})});
        p2.say(listener(3, ListenerState::Ready));
        settle();
        EXPECT_EQ(whoWait(),
                  "{bandwidthFailedIntf {p2 {failedStream {0 {stream 0x3}}}}, macDaBlocked "
                  "{91:e0:f0:00:00:01 {failedStream {0 {stream 0x2}}}}}");
    }
    /// A port has begun anew, and its peer answers.
    void listenAgain() {
        loop.runFor(1s);
        p2.say(domains());
        p2.say(listener(1, ListenerState::Ready));
        settle();
    }
};

TEST_F(ReservedStream, StandsOnPortsWithCommonTimeAlone) {
    for (const char* port : {"p1", "p2"}) bridge.time->portIs(IntfId{port})->capableIs(true);
    bridge.time->askedIs(true);
    EXPECT_EQ(picture(),
              reserved + "\np3 NotSupported NotSupported\np1 Listener 0x1 Ready\np2 Advertise 0x1\n");
    bridge.time->portIs(IntfId{"p2"})->capableIs(false);
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    EXPECT_EQ(stream1(), "0x1 SrClassA 9088 p1 -> p1");
    bridge.time->portIs(IntfId{"p2"})->capableIs(true);
    listenAgain();
    EXPECT_EQ(stream1(), reserved);
    bridge.time->portDel(IntfId{"p2"});
    EXPECT_EQ(stream1(), "0x1 SrClassA 9088 p1 -> p1");
    bridge.time->askedIs(false);
    listenAgain();
    EXPECT_EQ(stream1(), reserved);
    expectLogged({"p2 keeps no common time with its neighbour"}, 2);
}

TEST_F(ReservedStream, ListenersAreMergedAndLeaveOneByOne) {
    p3.say(listener(1, ListenerState::AskingFailed));
    EXPECT_EQ(picture(), reserved + "\np1 Listener 0x1 ReadyFailed\np2 Advertise 0x1\np3 Advertise 0x1\n");
    p3.say(listener(1, ListenerState::Ready));
    EXPECT_EQ(picture(), reserved + " p3\np1 Listener 0x1 Ready\np2 Advertise 0x1\np3 Advertise 0x1\n");
    EXPECT_EQ(bridge.groups(), "2 91:e0:f0:00:00:01: p2 p3\n");
    p1.heard();
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 SrClassA 9088 p1 -> p3");
    EXPECT_EQ(p1.heard().find("Listener"), std::string::npos);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{"p2"}), 0.0);
    p3.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(picture(), nobodyListens);
    EXPECT_NE(counted().find("p2 rx {listenerLeave 1, listenerReady 1} tx"), std::string::npos) << counted();
    EXPECT_NE(p1.heard().find("Lv Listener 0x1 Ready\n"), std::string::npos);
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(picture() + bridge.groups(), "");
    EXPECT_EQ(bridge.status->registeredStreams(1), nullptr);
}

TEST_F(ReservedStream, PdusFitTheirPort) {
    std::vector<Say> talkers = domains();
    for (std::uint64_t id = 1; id < 400; id += 2)
        talkers.push_back(advertise({.id = id, .macDa = 0x91'e0'f0'00'00'00 + id}));
    // The least is what no PDU can do with less: a LeaveAll of every type.
    for (const std::size_t capacity : {500U, 106U}) {
        p2.heard();
        bridge.ports().capacityIs(IntfId{"p2"}, capacity);
        for (int round = 0; round < 30; ++round) {
            p1.say(talkers, true);
            for (Peer* peer : {&p2, &p3}) peer->say(domains());
            settle();
        }
        const std::string registered = p2.registered();
        EXPECT_EQ(std::ranges::count(registered, '\n'), 200 + 2) << capacity;
        EXPECT_EQ(p2.heard().find("Lv"), std::string::npos) << capacity;
    }
}

TEST_F(ReservedStream, RepetitionsAreHarmless) {
    const double since = bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{"p2"});
    const Say failure = failed({.id = 9, .macDa = 0x91e0f0000009}, 9);
    p1.say(failure);
    const std::string whole = picture();
    const auto logged = bridge.log().size();
    const std::string before = counted();
    loop.runFor(1s);
    p1.say({advertise({}), failure, domain(SrClassId::SrClassA, 3)}, true);
    p2.say({listener(1, ListenerState::Ready), domain(SrClassId::SrClassA, 3)}, true);
    EXPECT_EQ(picture(), whole);
    EXPECT_EQ(bridge.log().size(), logged);
    EXPECT_EQ(counted(), before);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{"p2"}), since);
}

TEST_F(ReservedStream, ADomainPriorityChangeMakesAndUnmakesABoundary) {
    // A peer may withdraw the old value after it has declared the new one, in one PDU.
    p2.say({domain(SrClassId::SrClassA, 4), domain(SrClassId::SrClassA, 3, Event::Lv)});
    quiet();
    EXPECT_EQ(picture(),
              waiting + "\np2 Boundary Core\np1 Listener 0x1 AskingFailed\np2 Failed 0x1 code 8 bridge " +
                  selfBridge + "\np3 Advertise 0x1\n");
    expectLogged({"MSRP_ERROR Interface p2 is SrClassA Boundary port due to priority mismatch"});
    // The listener is kept as it asks, and answered as one that cannot be served.
    const auto stream = bridge.agent().msrpSm()->streamList(1);
    EXPECT_EQ(stream->listenerStateOrig(IntfId{"p2"}), ListenerState::Ready);
    EXPECT_EQ(stream->listenerState(IntfId{"p2"}), ListenerState::AskingFailed);
    p2.say({domain(SrClassId::SrClassA, 3), domain(SrClassId::SrClassA, 4, Event::Lv)});
    EXPECT_EQ(picture(), all);
    expectLogged({"Domain Join received on p2: Class: 6, Priority: 3, SrVID: 2"}, 2);

    p1.say(domain(SrClassId::SrClassA, 4));
    expectHears(p2, "Failed 0x1 code 8 bridge " + selfBridge);
    p1.say(domain(SrClassId::SrClassA, 3));
    EXPECT_EQ(picture(), all);

    // Our own priority changes: a LeaveAll ends the old value, and only the new one is declared.
    p2.heard();
    bridge.cliConfig->srClassAPriorityIs(5);
    settle();
    const std::string heard = p2.heard();
    EXPECT_NE(heard.find("LeaveAll\n"), std::string::npos) << heard;
    EXPECT_NE(heard.find("JoinMt Domain 6 priority 5 vid 2"), std::string::npos) << heard;
    EXPECT_EQ(heard.find("Domain 6 priority 3"), std::string::npos) << heard;
}

TEST_F(ReservedStream, ADomainLeaveEndsTheClassOnThePort) {
    p2.say(domain(SrClassId::SrClassA, 3, Event::Lv));
    quiet();
    EXPECT_EQ(picture(), waiting + "\np2 WaitingForPeer Core\np3 Advertise 0x1\n");
    expectLogged({"MSRP_DOMAIN_LV Domain Lv received on p2: Class: 6, Priority: 3, SrVID: 2"});
    listenAgain();
    EXPECT_EQ(picture(), all);
}

TEST_F(ReservedStream, LinksFlap) {
    bridge.linkIs("p2", false);
    settle();
    EXPECT_EQ(bridge.streams() + bridge.classes("p2"), waiting + "\np2 NotSupported NotSupported");
    expectLogged({"MSRP_ERROR p2 link status is down"});
    p2.heard();
    bridge.linkIs("p2", true);
    settle();
    EXPECT_NE(p2.heard().find("LeaveAll"), std::string::npos);
    EXPECT_EQ(bridge.logged("MSRP_NOTIF p2 link status is up"), 2U);
    listenAgain();
    EXPECT_EQ(picture(), all);

    bridge.linkIs("p1", false);
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 no talker");
    EXPECT_EQ(p2.registered().find("0x1"), std::string::npos) << p2.registered();
    bridge.linkIs("p1", true);
    loop.runFor(1s);
    p1.say(domains());
    p1.say(advertise({}));
    EXPECT_EQ(picture(), all);
}

/// What the peer may hold decides what is withdrawn, not what was about to replace it.
TEST_F(ReservedStream, AKindOfDeclarationThatWasTakenBackUnsentLeavesThePeer) {
    const auto ends = [this](const std::function<void()>& end) {
        for (const std::uint64_t id : {2U, 3U}) {  // p2 carries one of them
            p1.say(advertise({.id = id, .macDa = 0x91e0f0000000 + id, .maxFrameSize = 1458, .frames = 5}));
            p2.say(listener(id, ListenerState::Ready));
            settle();
        }
        expectHears(p2, "Failed 0x3 code 1 ");
        p1.say(
            {advertise({.id = 4, .macDa = 0x91e0f0000004}), failed({.id = 5, .macDa = 0x91e0f0000005}, 9)});
        settle();
        p1.say(
            {failed({.id = 4, .macDa = 0x91e0f0000004}, 9), advertise({.id = 5, .macDa = 0x91e0f0000005})});
        loop.post(end);  // in the same turn
        settle();
        EXPECT_EQ(p2.registered().find("0x"), std::string::npos) << p2.registered();
    };
    ends([this] { bridge.cliConfig->srClassASupportedIs(false); });
    bridge.cliConfig->srClassASupportedIs(true);
    loop.runFor(1s);
    core();
    ends([this] { bridge.linkIs("p1", false); });
}

/// One turn of the loop does a small part of what a change of a port means for its streams.
class ManyStreams : public Scenario {
protected:
    void SetUp() override {
        bridge.unitsPerTurn = 10;
        Scenario::SetUp();
        p1.say(domains());
        settle();
        std::vector<Say> talkers;
        for (std::uint64_t id = 1; id <= 60; ++id)
            talkers.push_back(advertise({.id = id, .macDa = 0x91e0f0000000 + id, .priority = 2}));
        p1.say(talkers);
        settle();
    }
};

TEST_F(ManyStreams, OfOneClassDoNotHoldUpWhatIsSaidOfTheOther) {
    auto said = domains();
    said.push_back(advertise({.id = 100, .macDa = 0x91e0f0000100}));
    p2.say(said);
    settle();
    EXPECT_EQ(bridge.stream(100), "0x64 SrClassA 9088 p2 -> p2");
    EXPECT_EQ(bridge.logged("Discard"), 0U);
}

TEST_F(ManyStreams, OfAPortThatGoesAndComesBackAtOnceStartItOver) {
    for (const bool link : {false, true}) {
        p2.say(domains());
        settle();
        ASSERT_EQ(bridge.classes("p2"), "p2 Core Core");
        for (const bool on : {false, true})
            link ? bridge.linkIs("p2", on) : bridge.config->intfEnableIs(IntfId{"p2"}, on);
        settle();
        EXPECT_EQ(bridge.classes("p2"), "p2 WaitingForPeer WaitingForPeer") << "its peer has not spoken yet";
    }
}

TEST_F(ManyStreams, OfAnEndedProcessAreAllWithdrawn) {
    p2.say(domains());
    settle();
    bridge.stop();
    EXPECT_TRUE(bridge.status->intfStatus().empty());
    settle();
    EXPECT_EQ(p1.registered() + p2.registered(), "");
}

TEST_F(ReservedStream, TheDomainOfTheClassesIsOnRecordForWhoeverKeepsOthersOut) {
    const auto told = [&] {
        settle();
        return shown(bridge.database().entity("switch/domain")->value());
    };
    const std::string both = "classPriority {2 true, 3 true}";
    const std::string core = "{core {2 true, 3 true}}";
    const auto withFrame = [&](unsigned largest) {
        return Runtime::concat("{", both, ", port {p1 ", core, ", p2 {core {2 true, 3 true}, largestFrameA ",
                               largest, "}, p3 ", core, "}}");
    };
    EXPECT_EQ(told(), withFrame(100));
    for (const Event event : {Event::JoinIn, Event::Lv}) {
        for (std::uint64_t id : {2U, 3U}) {
            p1.say(advertise({.id = id, .macDa = 0x91e0f0000000 + id, .maxFrameSize = 300}));
            p2.say(listener(id, ListenerState::Ready, event));
        }
        EXPECT_EQ(told(), withFrame(300)) << "a listener that leaves has until its leave timer ends";
    }
    pass(1s);
    EXPECT_EQ(told(), withFrame(100));
    bridge.linkIs("p1", false);
    p3.say(domain(SrClassId::SrClassA, 4));
    EXPECT_EQ(told(), Runtime::concat("{", both, ", port {p2 ", core, ", p3 {core {2 true}}}}"));
    bridge.config->intfEnableIs(IntfId{"p2"}, false);
    bridge.cliConfig->srClassBSupportedIs(false);
    bridge.cliConfig->srClassAPriorityIs(4);
    EXPECT_EQ(told(), "{classPriority {4 true}}") << "each peer has to agree anew";
    bridge.stop();
    EXPECT_EQ(bridge.database().entity("switch/domain")->fieldValue("port", {}),
              State::Value{State::Object{}});
}

TEST_F(ReservedStream, FailsWhileTheSwitchCannotCarryItOut) {
    const Switch::GroupId group{VlanId{2}, EthAddr::fromNumber(0x91e0f0000001)};
    const auto failedEverywhere = "p1 Listener 0x1 AskingFailed\np2 Failed 0x1 code 12 bridge " + selfBridge +
                                  "\np3 Failed 0x1 code 12 bridge " + selfBridge + '\n';
    bridge.refusals->groupIs(group, "the table is full");
    EXPECT_EQ(picture(), waiting + '\n' + failedEverywhere);
    auto again = domains();
    again.push_back(advertise({}));
    p1.say(again, true);  // a repetition is no reason to try again
    EXPECT_EQ(picture(), waiting + '\n' + failedEverywhere);
    bridge.refusals->groupDel(group);
    EXPECT_EQ(picture(), all);

    bridge.refusals->portIs(IntfId{"p2"}, "no queues");
    expectHears(p2, "Failed 0x1 code 2 bridge " + selfBridge);
    EXPECT_EQ(bridge.stream(1), waiting);
    bridge.refusals->portIs(IntfId{"p3"}, "no queues");
    bridge.refusals->portDel(IntfId{"p2"});
    EXPECT_EQ(stream1(), reserved);
    expectHears(p3, "Failed 0x1 code 2 ");
    bridge.refusals->portDel(IntfId{"p3"});
    EXPECT_EQ(picture(), all);

    // A talker that comes while the place is refused is told at once.
    p1.say(advertise({}, Event::Lv));
    loop.runFor(3s);
    bridge.refusals->groupIs(group, "the table is full");
    p1.say(advertise({}));
    expectHears(p2, "Failed 0x1 code 12 ");
}

TEST_F(ReservedStream, AnInterfaceRecordGoesAndComesBack) {
    const std::shared_ptr<const Msrp::IntfStatus> p = bridge.status->intfStatus(IntfId{"p2"});
    bridge.phy->intfStatusDel(IntfId{"p2"});
    settle();
    EXPECT_EQ(bridge.stream(1), waiting);
    bridge.linkIs("p2", true);  // before its speed is known
    listenAgain();
    EXPECT_EQ(p->speedEnum(), Interface::Speed::speedUnknown);
    expectHears(p2, "Failed 0x1 code 1 ");
    bridge.phy->intfStatusDel(IntfId{"p2"});
    bridge.speedIs("p2", Interface::Speed::speed100Mbps);
    bridge.linkIs("p2", true);
    listenAgain();
    EXPECT_EQ(picture(), all);
    EXPECT_EQ(p->speedEnum(), Interface::Speed::speed100Mbps);
}

TEST_F(ReservedStream, TheSpanningTreeBlocksAndUnblocks) {
    allForward({"Cist"});
    bridge.stp->modeIs(Stp::Mode::Rstp);
    bridge.topology->vlanTopologyIs(VlanId{2}, "Cist");
    loop.runFor(1s);
    reserve();
    portIs("Cist", "p2", PortState::blocking);
    settle();
    EXPECT_EQ(bridge.streams() + bridge.classes("p2"), waiting + "\np2 NotSupported NotSupported");
    EXPECT_GE(bridge.logged("MSRP_ERROR p2 port state is blocked"), 1U);
    portIs("Cist", "p2", PortState::forwarding);
    listenAgain();
    EXPECT_EQ(bridge.stream(1), reserved);

    // The bridge priority of the instance shows in the failures that start here.
    bridge.stp->stpInstanceStatusIs("Mst")->mstInstanceStatusIs("Cist")->bridgePriorityIs(0x4000);
    p1.say(advertise({.id = 2, .macDa = 0x91e0f0000002, .maxFrameSize = 2000}));
    expectHears(p2, "Failed 0x2 code 14 bridge 0x4000020000000001");
    bridge.topology->topoConfigIs("Cist")->topoPortConfigDel(IntfId{"p2"});
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported") << "it forwards nowhere";
}

TEST_F(ReservedStream, AVlanThatIsBlockedElsewhereFailsWithCode17) {
    allForward({"Cist", "Mst1", "Mst2"});
    bridge.stp->modeIs(Stp::Mode::Mstp);
    bridge.topology->vlanTopologyIs(VlanId{2}, "Mst2");
    loop.runFor(1s);
    reserve();
    bridge.topology->vlanTopologyIs(VlanId{2}, "Mst1");  // moves, and is not blocked meanwhile
    EXPECT_EQ(picture(), all);
    portIs("Mst1", "p2", PortState::blocking);
    p3.say(advertise({.id = 2, .macDa = 0x91e0f0000002}));
    expectHears(p2, "Failed 0x2 code 17");
    EXPECT_EQ(bridge.classes("p2"), "p2 Core Core");  // the base topology forwards
    EXPECT_GE(bridge.logged("StreamId 0x2 Vlan 2 is blocked on p2"), 1U);
    portIs("Mst1", "p2", PortState::forwarding);
    expectHears(p2, "Advertise 0x2\n");
    EXPECT_EQ(bridge.stream(1), reserved);
    // The port leaves the instance.
    bridge.topology->topoConfigIs("Mst1")->topoPortConfigDel(IntfId{"p2"});
    expectHears(p2, "Failed 0x1 code 17");
}

TEST_F(ReservedStream, EverySpanningTreeModeCanBeEnteredAndLeft) {
    // In per-VLAN mode the native VLAN 1 is not configured: the ports have no base topology and stop.
    bridge.stp->modeIs(Stp::Mode::Pvst);
    quiet();
    EXPECT_EQ(bridge.classes("p1"), "p1 NotSupported NotSupported");
    EXPECT_EQ(bridge.status->intfStatus(IntfId{"p1"})->portState(), Msrp::MsrpPortState::Blocked);
    allForward({"Vl1", "Vl2"});
    bridge.topology->vlanTopologyIs(VlanId{1}, "Vl1");
    bridge.topology->vlanTopologyIs(VlanId{2}, "Vl2");
    for (const char* port : {"p1", "p2", "p3"}) bridge.vlanIs(1, port, false);
    loop.runFor(1s);
    reserve();
    // A port's native VLAN says which tree counts; VLAN 7 is not configured.
    for (const std::uint16_t vlan : std::initializer_list<std::uint16_t>{7, 1}) {
        bridge.bridging->switchIntfConfigIs(IntfId{"p2"})->nativeVlanIs(VlanId{vlan});
        settle();
        EXPECT_EQ(bridge.stream(1), waiting);
        EXPECT_EQ(bridge.classes("p2"),
                  vlan == 7 ? "p2 NotSupported NotSupported" : "p2 WaitingForPeer WaitingForPeer");
    }
    listenAgain();
    EXPECT_EQ(bridge.stream(1), reserved);
    p2.heard();
    bridge.bridging->switchIntfConfigDel(IntfId{"p2"});
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported") << "no switched port any more";
    EXPECT_NE(p2.heard().find("LeaveAll\n"), std::string::npos) << "what its peer had said does not count";
    bridge.bridging->switchIntfConfigIs(IntfId{"p2"});
    listenAgain();
    EXPECT_EQ(bridge.stream(1), reserved);
    bridge.bridging->vlanConfigDel(VlanId{1});
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    bridge.stp->modeIs(Stp::Mode::Disabled);
    quiet();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    bridge.stp->modeIs(Stp::Mode::None);
    loop.runFor(1s);
    reserve();
}

TEST_F(ReservedStream, AClassIsSwitchedOffAndOn) {
    bridge.cliConfig->srClassASupportedIs(false);
    settle();
    EXPECT_EQ(bridge.classes("p1"), "p1 NotSupported Core");
    EXPECT_NE(p2.heard().find("Lv Domain 6 priority 3 vid 2"), std::string::npos);
    EXPECT_EQ(p2.registered(), "Domain 5 priority 2 vid 2\n");
    EXPECT_EQ(bridge.groups(), "");
    bridge.cliConfig->srClassBSupportedIs(false);
    settle();
    EXPECT_EQ(p2.registered(), "");
    const auto frames = p2.frames();
    loop.runFor(60s);
    EXPECT_EQ(p2.frames(), frames);  // MRP has stopped

    bridge.cliConfig->srClassASupportedIs(true);
    bridge.cliConfig->srClassBSupportedIs(true);
    loop.runFor(1s);
    reserve();
}

TEST_F(ReservedStream, ASpeedChangeReadmitsThePort) {
    bridge.speedIs("p2", Interface::Speed::speed10Mbps);  // 7500 kbit/s for streams
    expectLogged({"MSRP_ERROR p2 link speed changed"});
    EXPECT_EQ(bridge.classes("p2"), "p2 WaitingForPeer WaitingForPeer");
    listenAgain();
    expectHears(p2, "Failed 0x1 code 1 ");
    bridge.speedIs("p2", Interface::Speed::speed100Mbps);
    listenAgain();
    EXPECT_EQ(picture(), all);
    // Larger shares are retried at once, and VLANs change, whatever else a reload changes with them.
    bridge.cliConfig->srClassABandwidthPercentIs(0);
    p3.say(listener(1, ListenerState::Ready));
    EXPECT_EQ(stream1(), reserved);  // what was admitted stays
    expectHears(p3, "Failed 0x1 code 1 ");
    (void)bridge.cliConfig->apply(State::Object{{"maxFrameSizeLimit", std::uint64_t{1400}},
                                                {"srClassABandwidthPercent", std::uint64_t{75}}});
    EXPECT_EQ(picture(), reserved + " p3\np1 Listener 0x1 Ready\np2 Advertise 0x1\np3 Advertise 0x1\n");
    (void)bridge.cliConfig->apply(
        State::Object{{"maxFrameSizeLimit", std::uint64_t{1500}}, {"defaultSrPvid", std::uint64_t{7}}});
    expectHears(p3, "Domain 6 priority 3 vid 7\n");
}

TEST_F(ReservedStream, APortIsDisabledAndRemoved) {
    bridge.config->intfEnableIs(IntfId{"p2"}, false);
    settle();
    EXPECT_EQ(bridge.streams() + bridge.classes("p2"), waiting + "\np2 absent");
    EXPECT_EQ(p2.registered(), "") << "what was declared has been withdrawn";
    p1.say({advertise({.id = 2, .macDa = 0x91e0f0000002})});  // an entry that is false meets no assertion
    settle();
    bridge.config->intfEnableDel(IntfId{"p1"});
    bridge.config->intfEnableDel(IntfId{"p3"});
    EXPECT_TRUE(bridge.status->msrpEnabled()) << "withdrawals are pending";
    quiet();
    EXPECT_FALSE(bridge.status->msrpEnabled());
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_TRUE(bridge.status->registeredStreams().empty());
    for (const bool enabled : {false, true, false}) {  // the last time without a stream that ends
        bridge.config->intfEnableIs(IntfId{"p1"}, enabled);
        settle();
        EXPECT_EQ(bridge.status->msrpEnabled(), enabled);
        EXPECT_EQ(bridge.queues->configPriority(), enabled ? 85U : 0U);
        EXPECT_EQ(bridge.queues->intfConfigPriority(), enabled ? 85U : 0U);
    }
}

TEST_F(ReservedStream, TheEngineShowsHowEachAttributeStands) {
    p1.say(advertise({}, Event::Lv));
    loop.runFor(200ms);
    const auto ports = bridge.database().entityIs<Mrp::AttributesStatus>("mrp/attributes");
    const auto port = ports->child("intf", "p1");
    EXPECT_EQ(shown(port->value()),
              "{machines {leaveAll Passive, registered {1 1, 4 2}, declared {3 1, 4 2}}, attribute {"
              "1/0x1 {applicant VO, registrar LV, registered {value "
              "000000000000000191e0f00000010002006400017000000000}}, "
              "3/0x1 {applicant QA, registrar MT, declared {value 0000000000000001, declaration 2}}, "
              "4/0x5 {applicant QA, registrar IN, declared {value 05020002}, registered {value 05020002}}, "
              "4/0x6 {applicant QA, registrar IN, declared {value 06030002}, registered {value 06030002}}}}");
    for (const auto& [name, time] : {std::pair{"age", 1.2}, {"leaveIn", 0.4}})
        EXPECT_NEAR(std::get<double>(port->fieldValue("attribute", "1/0x1")->member(name)->data), time, 1e-6);
}

TEST_F(ReservedStream, AnAgentThatStopsWithoutAWordLeavesNobodyWaiting) {
    someWait();
    bridge.agent().stop();
    EXPECT_EQ(whoWait(), "");
}

TEST_F(ReservedStream, AnEndedProcessWithdrawsWhatItDeclared) {
    someWait();
    bridge.stop();
    settle();
    EXPECT_EQ(whoWait(), "");
    EXPECT_EQ(p1.registered() + p2.registered() + bridge.groups(), "");
    EXPECT_EQ(bridge.groupConfig->fdbConfigPriority(), 0U);
    EXPECT_EQ(bridge.agent().msrpSm(), nullptr);
}

}  // namespace
}  // namespace Sim
