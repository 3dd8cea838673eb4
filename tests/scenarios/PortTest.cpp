/// Ports come, go and change: domains, links, spanning tree, speeds, configuration.
#include "tests/scenarios/Scenario.h"


namespace Sim {
namespace {

/// Stream 1 from p1 to p2, reserved.
class ReservedStream : public Scenario {
protected:
    void SetUp() override {
        Scenario::SetUp();
        core();
        p1.say(advertise({}));
        p2.say(listener(1, ListenerState::Ready));
        settle();
        ASSERT_EQ(bridge.streams(), reserved);
    }
    void expectGone() {
        EXPECT_EQ(bridge.allocated("p2", SrClassId::SrClassA), 0U);
        EXPECT_TRUE(bridge.queues->intfConfig().empty());
    }
    const std::string reserved = "0x1 SrClassA 9088 p1 -> p2\n";
    const std::string waiting = "0x1 SrClassA 9088 p1 -> p1\n";
};

TEST_F(ReservedStream, ListenersAreMerged) {
    p3.say(listener(1, ListenerState::AskingFailed));
    settle();
    EXPECT_NE(p1.registered().find("Listener 0x1 ReadyFailed\n"), std::string::npos);
    p2.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_NE(p1.registered().find("Listener 0x1 AskingFailed\n"), std::string::npos);
    EXPECT_EQ(bridge.streams(), waiting);
    p3.say(listener(1, ListenerState::Ready));
    settle();
    EXPECT_NE(p1.registered().find("Listener 0x1 Ready\n"), std::string::npos);
    p3.say(listener(1, ListenerState::Ready, Event::Lv));
    quiet();
    EXPECT_EQ(p1.registered().find("Listener"), std::string::npos);
    EXPECT_NE(p1.heard().find("Lv Listener 0x1 Ready\n"), std::string::npos);
}

TEST_F(ReservedStream, RepetitionsAreHarmless) {
    const double since = bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{"p2"});
    const auto logged = bridge.log().size();
    const auto rx = bridge.rx("p2", 11);
    loop.runFor(1s);
    p1.say({advertise({}), domain(SrClassId::SrClassA, 3)}, true);
    p2.say({listener(1, ListenerState::Ready), domain(SrClassId::SrClassA, 3)}, true);
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
    EXPECT_EQ(bridge.log().size(), logged);
    EXPECT_EQ(bridge.rx("p2", 11), rx);
    EXPECT_EQ(bridge.agent().msrpSm()->streamList(1)->statusTime(IntfId{"p2"}), since);
}

TEST_F(ReservedStream, ADomainPriorityChangeMakesAndUnmakesABoundary) {
    // A peer may withdraw the old value after it has declared the new one, in one PDU.
    p2.say({domain(SrClassId::SrClassA, 4), domain(SrClassId::SrClassA, 3, Event::Lv)});
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 Boundary Core");
    EXPECT_NE(p2.registered().find("Failed 0x1 code 8"), std::string::npos) << p2.registered();
    EXPECT_NE(p1.registered().find("Listener 0x1 AskingFailed\n"), std::string::npos);
    expectGone();
    quiet();
    EXPECT_EQ(bridge.classes("p2"), "p2 Boundary Core");

    p2.say({domain(SrClassId::SrClassA, 3), domain(SrClassId::SrClassA, 4, Event::Lv)});
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 Core Core");
    EXPECT_EQ(bridge.streams(), reserved);
    EXPECT_NE(p1.registered().find("Listener 0x1 Ready\n"), std::string::npos);

    // Our own priority changes: a LeaveAll ends the old value, and only the new one is declared.
    p2.heard();
    bridge.cliConfig->srClassAPriorityIs(5);
    settle();
    const std::string heard = p2.heard();
    EXPECT_NE(heard.find("LeaveAll\n"), std::string::npos) << heard;
    EXPECT_NE(heard.find("JoinMt Domain 6 priority 5 vid 2"), std::string::npos) << heard;
    EXPECT_EQ(heard.find("Domain 6 priority 3"), std::string::npos) << heard;
}

TEST_F(ReservedStream, TheTalkersPortBecomesABoundary) {
    p1.say(domain(SrClassId::SrClassA, 4));
    settle();
    EXPECT_NE(p2.registered().find("Failed 0x1 code 8 bridge " + selfBridge), std::string::npos)
        << p2.registered();
    expectGone();
    p1.say(domain(SrClassId::SrClassA, 3));
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
}

TEST_F(ReservedStream, ADomainLeaveEndsTheClassOnThePort) {
    p2.say(domain(SrClassId::SrClassA, 3, Event::Lv));
    quiet();
    EXPECT_EQ(bridge.classes("p2"), "p2 WaitingForPeer Core");
    EXPECT_EQ(bridge.streams(), waiting);
    EXPECT_EQ(p1.registered().find("Listener"), std::string::npos);
    EXPECT_EQ(bridge.logged("MSRP_DOMAIN_LV Domain Lv received on p2: Class: 6, Priority: 3, SrVID: 2"), 1U);
    p2.say({domain(SrClassId::SrClassA, 3), listener(1, ListenerState::Ready)});
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
}

TEST_F(ReservedStream, LinksFlap) {
    bridge.linkIs("p2", false);
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    EXPECT_EQ(bridge.streams(), waiting);
    expectGone();
    EXPECT_EQ(bridge.logged("MSRP_ERROR p2 link status is down"), 1U);
    p2.heard();
    bridge.linkIs("p2", true);
    settle();
    EXPECT_NE(p2.heard().find("LeaveAll"), std::string::npos);
    EXPECT_EQ(bridge.logged("MSRP_NOTIF p2 link status is up"), 2U);
    loop.runFor(1s);
    p2.say({domain(SrClassId::SrClassA, 3), listener(1, ListenerState::Ready)});
    settle();
    EXPECT_EQ(bridge.streams(), reserved);

    bridge.linkIs("p1", false);
    quiet();
    EXPECT_EQ(bridge.stream(1), "0x1 no talker");
    EXPECT_EQ(p2.registered().find("0x1"), std::string::npos) << p2.registered();
    EXPECT_EQ(bridge.groups(), "");
    expectGone();
    bridge.linkIs("p1", true);
    loop.runFor(1s);
    p1.say({domain(SrClassId::SrClassA, 3), advertise({})});
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
}

TEST_F(ReservedStream, TheSpanningTreeBlocksAndUnblocks) {
    const auto cist = bridge.topology->topoConfigIs("Cist");
    for (const char* port : {"p1", "p2", "p3"}) {
        cist->topoPortConfigIs(IntfId{port})->stateIs(Bridging::Topology::PortState::forwarding);
    }
    bridge.stp->modeIs(Stp::Mode::Rstp);
    bridge.topology->vlanTopologyIs(VlanId{2}, "Cist");
    loop.runFor(1s);
    for (Peer* peer : {&p1, &p2, &p3}) peer->say(domains());
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    ASSERT_EQ(bridge.streams(), reserved);

    cist->topoPortConfigIs(IntfId{"p2"})->stateIs(Bridging::Topology::PortState::blocking);
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    EXPECT_GE(bridge.logged("MSRP_ERROR p2 port state is blocked"), 1U);
    EXPECT_EQ(bridge.streams(), waiting);
    cist->topoPortConfigIs(IntfId{"p2"})->stateIs(Bridging::Topology::PortState::forwarding);
    loop.runFor(1s);
    p2.say({domain(SrClassId::SrClassA, 3), listener(1, ListenerState::Ready)});
    settle();
    EXPECT_EQ(bridge.streams(), reserved);

    // The bridge priority of the instance shows in the failures that start here.
    bridge.stp->stpInstanceStatusIs("Mst")->mstInstanceStatusIs("Cist")->bridgePriorityIs(0x4000);
    p1.say(advertise({.id = 2, .macDa = 0x91e0f0000002, .maxFrameSize = 2000}));
    settle();
    EXPECT_NE(p2.registered().find("Failed 0x2 code 14 bridge 0x4000020000000001"), std::string::npos);
}

TEST_F(ReservedStream, AVlanThatIsBlockedElsewhereFailsWithCode17) {
    const auto cist = bridge.topology->topoConfigIs("Cist");
    const auto mst1 = bridge.topology->topoConfigIs("Mst1");
    for (const char* port : {"p1", "p2", "p3"}) {
        cist->topoPortConfigIs(IntfId{port})->stateIs(Bridging::Topology::PortState::forwarding);
        mst1->topoPortConfigIs(IntfId{port})->stateIs(Bridging::Topology::PortState::forwarding);
    }
    bridge.stp->modeIs(Stp::Mode::Mstp);
    bridge.topology->vlanTopologyIs(VlanId{2}, "Mst1");
    loop.runFor(1s);
    for (Peer* peer : {&p1, &p2, &p3}) peer->say(domains());
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    ASSERT_EQ(bridge.streams(), reserved);
    mst1->topoPortConfigIs(IntfId{"p2"})->stateIs(Bridging::Topology::PortState::blocking);
    p3.say(advertise({.id = 2, .macDa = 0x91e0f0000002}));
    settle();
    EXPECT_NE(p2.registered().find("Failed 0x2 code 17"), std::string::npos) << p2.registered();
    EXPECT_EQ(bridge.classes("p2"), "p2 Core Core");  // the base topology forwards
    EXPECT_GE(bridge.logged("StreamId 0x2 Vlan 2 is blocked on p2"), 1U);
    mst1->topoPortConfigIs(IntfId{"p2"})->stateIs(Bridging::Topology::PortState::forwarding);
    settle();
    EXPECT_NE(p2.registered().find("Advertise 0x2\n"), std::string::npos) << p2.registered();
    EXPECT_EQ(bridge.streams().substr(0, reserved.size()), reserved);
    // The port leaves the instance.
    mst1->topoPortConfigDel(IntfId{"p2"});
    settle();
    EXPECT_NE(p2.registered().find("Failed 0x1 code 17"), std::string::npos) << p2.registered();
    expectGone();
}

TEST_F(ReservedStream, EverySpanningTreeModeCanBeEnteredAndLeft) {
    // In per-VLAN mode the native VLAN 1 is not configured: the ports have no base topology and stop.
    bridge.stp->modeIs(Stp::Mode::Pvst);
    quiet();
    EXPECT_EQ(bridge.classes("p1"), "p1 NotSupported NotSupported");
    EXPECT_EQ(bridge.status->intfStatus(IntfId{"p1"})->portState(), Msrp::MsrpPortState::Blocked);
    for (const char* port : {"p1", "p2", "p3"}) {
        bridge.vlanIs(1, port, false);
        bridge.topology->topoConfigIs("Vl1")
            ->topoPortConfigIs(IntfId{port})
            ->stateIs(Bridging::Topology::PortState::forwarding);
        bridge.topology->topoConfigIs("Vl2")
            ->topoPortConfigIs(IntfId{port})
            ->stateIs(Bridging::Topology::PortState::forwarding);
    }
    bridge.topology->vlanTopologyIs(VlanId{1}, "Vl1");
    bridge.topology->vlanTopologyIs(VlanId{2}, "Vl2");
    const auto reserve = [this] {
        loop.runFor(1s);
        core();
        p1.say(advertise({}));
        p2.say(listener(1, ListenerState::Ready));
        settle();
        EXPECT_EQ(bridge.streams(), reserved);
    };
    reserve();
    bridge.stp->modeIs(Stp::Mode::Disabled);
    quiet();
    EXPECT_EQ(bridge.classes("p2"), "p2 NotSupported NotSupported");
    bridge.stp->modeIs(Stp::Mode::None);
    reserve();
}

TEST_F(ReservedStream, AVlanThatMovesBetweenTopologiesIsNotBlocked) {
    for (const char* topo : {"Cist", "Mst1", "Mst2"}) {
        for (const char* port : {"p1", "p2", "p3"}) {
            bridge.topology->topoConfigIs(topo)
                ->topoPortConfigIs(IntfId{port})
                ->stateIs(Bridging::Topology::PortState::forwarding);
        }
    }
    bridge.topology->vlanTopologyIs(VlanId{2}, "Mst2");
    bridge.stp->modeIs(Stp::Mode::Mstp);
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
    bridge.topology->vlanTopologyIs(VlanId{2}, "Mst1");
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
    EXPECT_NE(p2.registered().find("Advertise 0x1\n"), std::string::npos) << p2.registered();
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
    core();
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
}

TEST_F(ReservedStream, ASpeedChangeReadmitsThePort) {
    bridge.speedIs("p2", Interface::Speed::speed10Mbps);  // 7500 kbit/s for streams
    settle();
    EXPECT_EQ(bridge.logged("MSRP_ERROR p2 link speed changed"), 1U);
    EXPECT_EQ(bridge.classes("p2"), "p2 WaitingForPeer WaitingForPeer");
    loop.runFor(1s);
    p2.say({domain(SrClassId::SrClassA, 3), listener(1, ListenerState::Ready)});
    settle();
    EXPECT_NE(p2.registered().find("Failed 0x1 code 1 "), std::string::npos) << p2.registered();
    bridge.speedIs("p2", Interface::Speed::speed100Mbps);
    loop.runFor(1s);
    p2.say({domain(SrClassId::SrClassA, 3), listener(1, ListenerState::Ready)});
    settle();
    EXPECT_EQ(bridge.streams(), reserved);
}

TEST_F(ReservedStream, LargerSharesAreRetriedAtOnce) {
    bridge.cliConfig->srClassABandwidthPercentIs(0);
    p3.say(listener(1, ListenerState::Ready));
    settle();
    EXPECT_EQ(bridge.streams(), reserved);  // what was admitted stays
    EXPECT_NE(p3.registered().find("Failed 0x1 code 1 "), std::string::npos) << p3.registered();
    bridge.cliConfig->srClassABandwidthPercentIs(75);
    settle();
    EXPECT_EQ(bridge.streams(), "0x1 SrClassA 9088 p1 -> p2 p3\n");
    EXPECT_NE(p3.registered().find("Advertise 0x1\n"), std::string::npos);
}

TEST_F(ReservedStream, APortIsDisabledAndRemoved) {
    bridge.config->intfEnableIs(IntfId{"p2"}, false);
    settle();
    EXPECT_EQ(bridge.classes("p2"), "p2 absent");
    EXPECT_EQ(p2.registered(), "") << "what was declared has been withdrawn";
    EXPECT_EQ(bridge.streams(), waiting);
    expectGone();
    p1.say({advertise({.id = 2, .macDa = 0x91e0f0000002})});  // an entry that is false meets no assertion
    settle();
    bridge.config->intfEnableDel(IntfId{"p1"});
    bridge.config->intfEnableDel(IntfId{"p3"});
    EXPECT_TRUE(bridge.status->msrpEnabled()) << "withdrawals are pending";
    quiet();
    EXPECT_FALSE(bridge.status->msrpEnabled());
    EXPECT_EQ(bridge.queues->configPriority(), 0U);
    EXPECT_EQ(bridge.streams(), "");
    EXPECT_TRUE(bridge.status->registeredStreams().empty());
}

TEST_F(ReservedStream, AnEndedProcessWithdrawsWhatItDeclared) {
    bridge.stop();
    settle();
    EXPECT_EQ(p1.registered(), "");
    EXPECT_EQ(p2.registered(), "");
    EXPECT_EQ(bridge.groups(), "");
    EXPECT_EQ(bridge.groupConfig->fdbConfigPriority(), 0U);
}

}  // namespace
}  // namespace Sim
