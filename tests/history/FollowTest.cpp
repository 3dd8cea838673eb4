/// What is remembered of a whole bridge's life: frames in, the history out.
#include "tests/history/Told.h"
#include "tests/scenarios/Scenario.h"

#include <sstream>

namespace Sim {
namespace {

using History::told;
using Msrp::TalkerFailureCode;

class Remembered : public Scenario {
protected:
    void SetUp() override {
        bridge.historyStart({.octets = octets, .directory = {}, .outcomes = outcomes});
        journal = bridge.database().entityIs<History::Journal>("history/events");
        Scenario::SetUp();
        core();
        after = journal->next() - 1;
    }
    /// What came since the last look.
    std::string news(History::Filter filter = {}) {
        filter.after = after;
        after = journal->next() - 1;
        return told(*journal, filter);
    }
    std::string record(const std::string& path, const std::string& field, const std::string& rest = {}) {
        const auto value = bridge.database().entity(path)->fieldValue(field, rest);
        return value ? shown(*value) : "nothing";
    }

    std::shared_ptr<Switch::Outcomes> outcomes = std::make_shared<Switch::Outcomes>();
    std::size_t octets = 1 << 20;
    std::shared_ptr<History::Journal> journal;
    std::uint64_t after = 0;
};

TEST_F(Remembered, PortsAndDomainsComeUp) {
    EXPECT_EQ(told(*journal, {.port = "p2"}),
              "port p2 - link: unknown -> up\n"
              "port p2 - speed: unknown -> 1G\n"
              "port p2 - msrp: off -> on\n"
              "domain p2 - SrClassB: NotSupported -> WaitingForPeer\n"
              "domain p2 - SrClassA: NotSupported -> WaitingForPeer\n"
              "domain p2 - SrClassB: WaitingForPeer -> Core, peer: priority 2, VLAN 2\n"
              "domain p2 - SrClassA: WaitingForPeer -> Core, peer: priority 3, VLAN 2\n");
    bridge.speedIs("p2", Interface::Speed::speed100Mbps);
    bridge.linkIs("p2", false);
    bridge.config->intfEnableIs(IntfId{"p3"}, false);
    p1.say({domain(SrClassId::SrClassA, 5)});
    bridge.refusals->portIs(IntfId{"p1"}, "no such qdisc");
    bridge.refusals->groupIs({VlanId{2}, EthAddr::fromNumber(0x91e0f0000001)}, "the table is full");
    bridge.refusals->groupDel({VlanId{2}, EthAddr::fromNumber(0x91e0f0000001)});
    const auto ports = [](const char* port, bool enabled) {
        return State::Value{State::Object{{"intfEnable", State::Object{{port, enabled}}}}};
    };
    bridge.history().configured("msrp/config", ports("p1", true), ports("p2", false), "user 7");
    bridge.history().configured("msrp/cliConfig/srClassAPriority", std::uint64_t{3}, std::uint64_t{2},
                                "user 0");
    settle();
    EXPECT_EQ(news(),
              "domain p2 - SrClassB: Core -> NotSupported\n"
              "domain p2 - SrClassA: Core -> NotSupported\n"
              "domain p2 - SrClassB: NotSupported -> WaitingForPeer\n"
              "domain p2 - SrClassA: NotSupported -> WaitingForPeer\n"
              "port p2 - speed: 1G -> 100M\n"
              "domain p2 - SrClassB: WaitingForPeer -> NotSupported\n"
              "domain p2 - SrClassA: WaitingForPeer -> NotSupported\n"
              "port p2 - link: up -> down\n"
              "domain p3 - SrClassB: Core -> NotSupported\n"
              "domain p3 - SrClassA: Core -> NotSupported\n"
              "port p3 - msrp: on -> off\n"
              "refused p1 - queues: no such qdisc\n"
              "refused - - group 2-91:e0:f0:00:00:01: the table is full\n"
              "accepted - - group 2-91:e0:f0:00:00:01\n"
              "config - - msrp/config intfEnable/p1: true -> null by user 7\n"
              "config - - msrp/config intfEnable/p2: null -> false by user 7\n"
              "config - - msrp/cliConfig srClassAPriority: 3 -> 2 by user 0\n"
              "domain p1 - SrClassA: Core -> Boundary, peer: priority 5, VLAN 2\n");
}

TEST_F(Remembered, AStreamComesIsReservedFailsAndGoes) {
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    p3.say(listener(1, ListenerState::AskingFailed));
    settle();
    EXPECT_EQ(news({.stream = 1}),
              "talker p1 00:00:00:00:00:00/1 class A, 9088 kbps, to 91:e0:f0:00:00:01 in VLAN 2\n"
              "reserved p2 00:00:00:00:00:00/1 class A, 9088 kbps\n"
              "asked p3 00:00:00:00:00:00/1 -\n");
    bridge.linkIs("p2", false);
    settle();
    EXPECT_EQ(news({.stream = 1}), "released p2 00:00:00:00:00:00/1 link down, 9088 kbps\n");
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(
        news({.stream = 1}),
        "left p1 00:00:00:00:00:00/1 withdrawn or not renewed; class A, 9088 kbps, to 91:e0:f0:00:00:01 "
        "in VLAN 2; had been asked for: p3 asks\n");
    EXPECT_EQ(record("history/gone", "stream", "0x1"),
              "{reason withdrawn or not renewed, talker p1, class SrClassA, kbps 9088, destination "
              "91:e0:f0:00:00:01, vlan 2, port {p3 {holding asks}}}");
}

TEST_F(Remembered, WhoWaitsAndWhoFails) {
    bridge.cliConfig->srClassABandwidthPercentIs(1);
    p1.say(advertise({}));
    p1.say(advertise({.id = 2, .macDa = 0x91e0f0000002}));
    p1.say(advertise({.id = 3}));
    for (const std::uint64_t id : {1U, 2U, 3U}) p2.say(listener(id, ListenerState::Ready));
    settle();
    EXPECT_EQ(
        news(),
        "talker p1 00:00:00:00:00:00/1 class A, 9088 kbps, to 91:e0:f0:00:00:01 in VLAN 2\n"
        "reserved p2 00:00:00:00:00:00/1 class A, 9088 kbps\n"
        "talker p1 00:00:00:00:00:00/2 class A, 9088 kbps, to 91:e0:f0:00:00:02 in VLAN 2\n"
        "waits p2 00:00:00:00:00:00/2 insufficient bandwidth (code 1), found by bridge "
        "8000.02:00:00:00:00:01, class A, 9088 kbps\n"
        "talker p1 00:00:00:00:00:00/3 class A, 9088 kbps, to 91:e0:f0:00:00:01 in VLAN 2\n"
        "waits p1 00:00:00:00:00:00/3 stream destination address already in use (code 5), found by bridge "
        "8000.02:00:00:00:00:01, class A, 9088 kbps\n"
        "asked p2 00:00:00:00:00:00/3 -\n");
    p1.say(advertise({}, Event::Lv));
    settle();
    EXPECT_EQ(news(), "");
}

TEST_F(Remembered, StagesAreTimedWhereTheyHappen) {
    const Switch::GroupId group{VlanId{2}, EthAddr::fromNumber(0x91e0f0000001)};
    p1.say(advertise({}));
    loop.runFor(30ms);
    p2.say(listener(1, ListenerState::Ready));
    loop.runFor(5ms);
    outcomes->queuesAre(IntfId{"p2"});
    loop.runFor(7ms);
    outcomes->groupIs(group, IntfId{"p2"});
    outcomes->groupIs(group, IntfId{"p3"});  // never asked for
    settle();
    const auto times = bridge.database().entityIs<History::Times>("history/times");
    std::string distributions;
    for (const auto& stage : History::stageNames) {
        const auto value = times->stage(stage.value)->value();
        distributions += std::string{stage.name} + ' ' + State::text(*value.member("count")) + ' ' +
                         State::text(*value.member("median")) + ' ' + State::text(*value.member("max")) +
                         '\n';
    }
    EXPECT_EQ(distributions,
              "declared 1 0.000000 0.000000\nasked 1 0.030000 0.030000\nadmitted 1 0.000000 0.000000\n"
              "group 1 0.012000 0.012000\nqueue 1 0.005000 0.005000\nwhole 1 0.012000 0.012000\n");
}

class LittleRoom : public Remembered {
protected:
    LittleRoom() {
        octets = 128 * History::slotOctets;
        bridge.mrpConfig->leaveAllTimeIs(600'000);  // what peers said stays
    }
};

TEST_F(LittleRoom, IsNotTakenFromOthersByAPeerThatFlapsOrBringsThousands) {
    // What p3 has lost is told in between.
    const auto others = [this] {
        std::istringstream both{told(*journal, {.port = "p1"}) + told(*journal, {.port = "p2"})};
        std::string kept;
        for (std::string line; std::getline(both, line);)
            if (!line.ends_with("are kept no longer)")) kept += line + '\n';
        return kept;
    };
    p1.say(advertise({}));
    p2.say(listener(1, ListenerState::Ready));
    settle();
    const std::string before = others();
    for (int i = 0; i < 200; ++i) {
        p3.say(advertise({.id = 9, .macDa = 0x91e0f0000009}, i % 2 == 0 ? Event::JoinIn : Event::Lv));
        loop.runFor(700ms);
    }
    for (std::uint64_t id = 100; id < 2100; ++id) p3.say(advertise({.id = id, .macDa = 0x91e0f0010000 + id}));
    quiet();
    EXPECT_GT(journal->next(), 10U * 127U) << "far more has happened than there is room for";
    EXPECT_EQ(others(), before);
    EXPECT_EQ(record("history/events", "kept") + ' ' + record("history/events", "room"), "127 127");
    bridge.linkIs("p3", false);
    quiet();
    const auto gone = bridge.database().entityIs<History::Gone>("history/gone");
    EXPECT_EQ(gone->size(), History::Gone::capacity);
    p1.say(advertise({}, Event::Lv));
    quiet();
    EXPECT_EQ(gone->size(), History::Gone::capacity);
    EXPECT_NE(record("history/gone", "stream", "0x1"), "nothing");
}

}  // namespace
}  // namespace Sim
