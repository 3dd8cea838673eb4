#include "Linux/doctor/Capabilities.h"
#include "Linux/doctor/Leftovers.h"
#include "Linux/groups/GroupAgent.h"
#include "Linux/groups/GroupRemoval.h"
#include "Runtime/Text.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/ports/FaultyKernel.h"
#include "tests/ports/Namespace.h"

#include <linux/rtnetlink.h>
#include <sstream>

using namespace std::chrono_literals;

namespace {

class GroupAgentTest : public PortsTest {
protected:
    /// The agent in one life of the process.
    struct Life {
        explicit Life(GroupAgentTest& test)
            : devices{test.loop},
              agent{test.loop,
                    devices,
                    test.requests,
                    {test.config, test.wanted, test.status, test.refusals},
                    [this, &test] { test.loop.post([this] { agent.apply(); }); },
                    [&test](auto tone, auto& line) { test.complaints += told(tone, line); },
                    test.files,
                    [&test](const std::string&) { return test.served; }} {}
        Linux::DeviceTable devices;
        Linux::GroupAgent agent;
    };

    void make() override {
        // Or else the hosts that live at the cables' ends would join groups of their own.
        Namespace::run("echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6");
        Namespace::cable("p1", "h1");
        Namespace::cable("p2", "h2");
        makeBridge();
        ASSERT_EQ(requests.kernel.open(), "");
        config->bridgeIs("br0");
        wanted->fdbConfigPriorityIs(1);
        begin();
    }
    static void makeBridge() {
        Namespace::ip("link add br0 up type bridge mcast_querier 0");
        Namespace::ip("link set p1 master br0");
        Namespace::ip("link set p2 master br0");
    }
    /// Ends the life before as a crash does.
    void begin() {
        settle();
        life.reset();
        life = std::make_unique<Life>(*this);
        ASSERT_EQ(life->devices.start(), "");
        ASSERT_EQ(life->agent.start(marks), "");
    }
    static EthAddr address(unsigned n) { return EthAddr::fromNumber(0x91E0F0000000 + n); }
    auto group(unsigned n) { return wanted->fdbConfigIs(VlanId{2})->ethGroupIs(address(n)); }
    void want(unsigned n, const char* port, bool member = true) { group(n)->intfIs(IntfId{port}, member); }
    void wantMany(unsigned from, unsigned to, bool member = true) {
        for (unsigned n = from; n < to; ++n) want(n, "p1", member);
    }
    /// "01@p1 02@p2/another", as the kernel has it.
    std::string table() {
        Linux::GroupsByBridge all;
        EXPECT_TRUE(Linux::readAllGroups(requests.kernel, all));
        std::map<std::string, std::string> found;
        for (const auto& entry : all[if_nametoindex("br0")]) {
            std::array<char, IF_NAMESIZE> port{};
            if_indextoname(entry.member.port, port.data());
            if (entry.member.group.ip.empty())
                found.emplace(Runtime::concat(entry.member.group.mac.text().substr(15), '@', port.data()),
                              entry.protocol == 78 ? "" : "/another");
        }
        std::string text;
        for (const auto& [name, owner] : found) text += Runtime::concat(text.empty() ? "" : " ", name, owner);
        return text;
    }
    /// As the reservation machine does: listeners are sent away on a refusal, and come again when it goes.
    void obeyRefusals() {
        obedience = refusals->watch([this](const State::Change& change) {
            const auto* id = change.key<Switch::GroupId>();
            if (id == nullptr) return;
            const auto group = wanted->fdbConfig(id->vlan)->ethGroup(id->addr);
            if (!group) return;
            const bool refused = refusals->group(*id) != nullptr;
            group->intfIs(IntfId{"p2"}, !refused);
            group->intfIs(IntfId{"p1"}, refused);
        });
    }
    /// A group whose talker is behind p1, and which p2 may listen to.
    void announce(unsigned n, bool listened, const char* talker = "p1") {
        group(n)->talkerIntfIs(IntfId{talker});
        want(n, talker, !listened);
        want(n, "p2", listened);
    }
    /// How many groups go to listeners, and how many are refused.
    std::string heard() {
        std::istringstream words{table()};
        int listened = 0;
        for (std::string word; words >> word;) listened += word.ends_with("@p2") ? 1 : 0;
        return Runtime::concat(listened, " and ", refusals->group().size());
    }
    /// How many are programmed, and how many failed.
    std::string counts() { return Runtime::concat(status->programmed(), " and ", status->missing()); }
    [[nodiscard]] bool snooping() const {
        life->devices.readBridge(if_nametoindex("br0"));
        return life->devices.find("br0")->bridgeSettings->multicastSnooping;
    }
    /// Of this kind: "add dev br0 port p1 grp 91:e0:f0:00:00:01 permanent".
    static void mdb(const std::string& verb, const char* port, const char* last) {
        Namespace::bridge(Runtime::concat("mdb ", verb, " dev br0 port ", port, " grp 91:e0:f0:00:00:", last,
                                          verb == "add" ? " permanent" : ""));
    }

    const TemporaryDirectory directory;
    const std::string files = directory.file("control");
    Linux::Ability marks = Linux::Ability::present;
    bool served = false;
    std::string complaints;
    FaultyKernel requests;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    std::shared_ptr<Bridging::Input::Config> wanted = std::make_shared<Bridging::Input::Config>();
    std::shared_ptr<Linux::GroupStatus> status = std::make_shared<Linux::GroupStatus>();
    std::shared_ptr<Switch::Refusals> refusals = std::make_shared<Switch::Refusals>();
    State::Reactor obedience;
    std::unique_ptr<Life> life;
};

#define EXPECT_TABLE(text) EXPECT_UNTIL(text, table())
#define EXPECT_HEARD(listened, refused) EXPECT_UNTIL(#listened " and " #refused, heard())
#define EXPECT_COUNTS(made, missed) EXPECT_UNTIL(#made " and " #missed, counts())

TEST_F(GroupAgentTest, TheTableFollowsTheRecordAndKeepsWhatIsAnothers) {
    mdb("add", "p2", "02");
    mdb("add", "p2", "09");
    want(1, "p1");
    want(1, "p2", false);
    want(2, "p1");
    want(2, "p2");
    EXPECT_TABLE("01@p1 02@p1 02@p2/another 09@p2/another");
    settle();
    EXPECT_EQ(Runtime::concat(status->wanted(), ' ', status->programmed(), ' ', status->foreign(), ' ',
                              status->tableUsed()),
              "3 3 1 3");
    // Taken away by its owner, what is wanted becomes ours.
    mdb("del", "p2", "02");
    EXPECT_TABLE("01@p1 02@p1 02@p2 09@p2/another");
    // Ours, replaced by somebody's, is his.
    mdb("del", "p1", "02");
    mdb("add", "p1", "02");
    loop.runUntil([&] { return status->foreign() == 1; }, 5s);
    settle(Linux::GroupAgent::grace);
    wanted->fdbConfigDel(VlanId{2});
    EXPECT_TABLE("02@p1/another 09@p2/another");
    want(1, "p1");
    EXPECT_COUNTS(1, 0);
    for (int i = 0; i < 7; ++i) {
        want(1, "p1", i % 2 == 1);
        life->agent.apply();  // the news of what it did is not heard before the next
    }
    wanted->fdbConfigPriorityIs(0);
    settle();
    EXPECT_TABLE("02@p1/another 09@p2/another");
    EXPECT_EQ(complaints, "");
}

// That what stays has no gap meanwhile is for the end-to-end test to see.
TEST_F(GroupAgentTest, AfterACrashOnlyWhatTheEarlierLifeMadeIsHeldBack) {
    want(1, "p1");
    EXPECT_COUNTS(1, 0);
    life.reset();
    wanted->fdbConfigDel(VlanId{2});
    begin();
    want(2, "p1");
    EXPECT_TABLE("01@p1 02@p1");
    want(2, "p1", false);
    EXPECT_TRUE(loop.runUntil([&] { return table() == "01@p1"; }, Linux::GroupAgent::grace / 3)) << table();
    EXPECT_TABLE("");
}

TEST_F(GroupAgentTest, WhenTheTableIsFullAllTheSameSnoopingComesBackAndRoomIsMade) {
    wantMany(0, 10);
    EXPECT_COUNTS(10, 0);
    bool lowered = false;
    requests.refuse = [&](std::span<const std::byte>) -> std::optional<Linux::NetlinkAnswer> {
        // Behind the agent's back.
        if (!std::exchange(lowered, true)) Namespace::ip("link set br0 type bridge mcast_hash_max 32");
        return std::nullopt;
    };
    wantMany(10, 50);
    EXPECT_COUNTS(16, 34);
    EXPECT_TRUE(snooping());
    EXPECT_EQ(status->tableUsed(), 16U);
    EXPECT_EQ(status->tableRoom(), 0U);
    EXPECT_EQ(complaints,
              "bridge br0: the multicast table was full at 32 groups, so the kernel switched snooping "
              "off and flooded everything; it is switched on again\n");
    want(0, "p2");
    EXPECT_COUNTS(17, 34);
}

TEST_F(GroupAgentTest, ListenersDisplaceTalkersAndWhoFindsNoRoomIsToldUntilThereIs) {
    obeyRefusals();
    Namespace::ip("link set br0 type bridge mcast_hash_max 36");  // 20 places for us
    settle();
    for (unsigned n = 0; n < 60; ++n) announce(n, false);
    EXPECT_COUNTS(20, 40);
    EXPECT_TRUE(snooping());
    loop.runUntil([&] { return !complaints.empty(); }, 5s);
    EXPECT_EQ(complaints,
              "bridge br0: group 2/91:e0:f0:00:00:14/p1 is not forwarded: the bridge's multicast "
              "table is full (and 39 others)\n");
    for (unsigned n = 40; n < 55; ++n) announce(n, true);
    EXPECT_HEARD(15, 0);
    for (unsigned n = 0; n < 15; ++n) announce(n, true);
    EXPECT_HEARD(20, 10);
    EXPECT_EQ(refusals->group({VlanId{2}, address(5)})->why(), "the bridge's multicast table is full");
    // Another talker's port gets its share.
    for (unsigned n = 100; n < 104; ++n) announce(n, true, "p3");
    EXPECT_HEARD(20, 14);
    // Places that are freed go to those that were refused, the oldest first; one of them has gone.
    wanted->fdbConfig(VlanId{2})->ethGroupDel(address(5));
    for (unsigned n = 100; n < 102; ++n) announce(n, false, "p3");
    EXPECT_HEARD(20, 11);
    EXPECT_FALSE(refusals->group({VlanId{2}, address(6)}));
    Namespace::ip("link set br0 type bridge mcast_hash_max 128");
    EXPECT_HEARD(31, 0);
    EXPECT_TRUE(snooping());
}

TEST_F(GroupAgentTest, WhatTheKernelRefusesIsToldAndTriedAgain) {
    obeyRefusals();
    requests.refuseAll(RTM_NEWMDB, EPERM);
    announce(1, true);
    announce(2, false);
    EXPECT_HEARD(0, 1);
    requests.refuse = {};
    life->agent.audit(true);
    EXPECT_HEARD(1, 0);
    requests.refuseAll(RTM_NEWMDB, ENOBUFS);
    announce(3, true);
    EXPECT_HEARD(1, 0) << "it may pass";
    EXPECT_HEARD(1, 1) << "but it does not";
    requests.refuseAll(RTM_DELMDB, ENOBUFS);
    requests.refused = 0;
    announce(1, false);
    EXPECT_TRUE(loop.runUntil([&] { return requests.refused > 1; }, 5s));
    requests.refuse = {};
    EXPECT_HEARD(0, 1) << "what was to go goes later";
}

TEST_F(GroupAgentTest, AFloodOfReportsEndsSnoopingOnlyForAsLongAsItFillsTheTable) {
    announce(1, true);
    Namespace::ip("link set br0 type bridge mcast_hash_max 40");
    EXPECT_HEARD(1, 0);
    const auto flood = [](const char* verb, int last) {
        // In the order of numbers; the last of them overfills the table.
        return std::system(Runtime::concat("for n in $(seq 10 ", last, "); do echo mdb ", verb,
                                           " dev br0 port p1 grp 91:e0:f0:01:00:$n permanent; done |"
                                           " bridge -force -b - 2>/dev/null")
                               .c_str());
    };
    (void)flood("add", 49);
    loop.runUntil([&] { return !status->flooded().empty(); }, 5s);
    EXPECT_EQ(status->flooded(), "multicast snooping of br0 is off");
    // While that is so, a clean end leaves nothing of ours.
    life->agent.withdraw();
    EXPECT_EQ(table().find("01@p2 "), std::string::npos);
    begin();
    Namespace::ip("link set br0 type bridge mcast_snooping 1");
    (void)flood("del", 30);
    EXPECT_HEARD(1, 0);
    (void)flood("add", 60);
    loop.runUntil([&] { return !status->flooded().empty(); }, 5s);
    Namespace::ip("link set br0 type bridge mcast_hash_max 200");
    loop.runUntil([&] { return status->flooded().empty(); }, 5s);
    EXPECT_TRUE(snooping());
    // Who switches it off without such a reason is not overruled.
    Namespace::ip("link set br0 type bridge mcast_snooping 0");
    announce(2, true);
    EXPECT_HEARD(1, 1);
    EXPECT_FALSE(snooping());
}

TEST_F(GroupAgentTest, NoPortBecomesAMulticastRoutersAndEachGetsItsRoleBack) {
    const auto roles = [&] {
        life->devices.readBridge(if_nametoindex("br0"));
        return Runtime::concat("p1 ", life->devices.find("p1")->multicastRouter, ", p2 ",
                               life->devices.find("p2")->multicastRouter);
    };
    EXPECT_UNTIL("p1 0, p2 0", roles());
    Namespace::ip("link set p1 type bridge_slave mcast_router 2");
    EXPECT_UNTIL("p1 0, p2 0", roles());
    begin();  // after a crash
    settle();
    std::vector<Linux::Leftover> found;
    EXPECT_EQ(Linux::findLeftovers(requests, life->devices, {{}, {}, files}, found), "");
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found.front().device + ": " + found.front().what, "p1: mcast_router 0 instead of 2");
    life->agent.withdraw();
    EXPECT_UNTIL("p1 2, p2 1", roles());
    EXPECT_EQ(found.back().remove(requests), "");
    config->routerPortsIs(true);
    begin();
    loop.runUntil([&] { return status->routerPorts().contains(IntfId{"p1"}); }, 5s);
    EXPECT_UNTIL("p1 2, p2 1", roles());
    EXPECT_EQ(status->routerPorts().size(), 1U);
}

TEST_F(GroupAgentTest, WhetherTheKernelMarksEntriesIsKnownBeforehand) {
    const Linux::Abilities foretold = Linux::probeAbilities();
    EXPECT_EQ(foretold.groups, Linux::Ability::present);
    want(1, "p1");
    EXPECT_TABLE(foretold.groupOwner == Linux::Ability::present ? "01@p1" : "01@p1/another");
}

TEST_F(GroupAgentTest, ARouterPortThatCannotBeTakenIsSaidOnceEachTime) {
    const auto becomesRouter = [&](const char* how) {
        Namespace::ip(std::string{"link set p1 type bridge_slave mcast_router "} + how);
        settle();
    };
    const std::string complaint =
        "bridge br0: p1: cannot keep it from becoming a multicast router's port, which gets every stream: "
        "Operation not permitted\n";
    requests.refuseAll(RTM_SETLINK, EPERM);
    for (const char* how : {"2", "1", "2"}) becomesRouter(how);
    EXPECT_EQ(complaints, complaint);
    requests.refuse = {};
    becomesRouter("1");
    EXPECT_EQ(complaints, complaint);
    requests.refuseAll(RTM_SETLINK, EPERM);
    becomesRouter("2");
    EXPECT_EQ(complaints, complaint + complaint);
    Namespace::ip("link set p1 nomaster");
    settle();
    Namespace::ip("link set p1 master br0");
    settle();
    EXPECT_EQ(complaints, complaint + complaint + complaint) << "it is another port now";
}

TEST_F(GroupAgentTest, WhatAnEarlierLifeLeftOnAnotherBridgeOrWithAnotherMarkGoes) {
    want(1, "p1");
    want(2, "p1");
    EXPECT_TABLE("01@p1 02@p1");
    // The bridge is given up.
    settle(Linux::GroupAgent::grace);
    // Nothing can be deleted while it is down.
    Namespace::ip("link set br0 down name br9");
    EXPECT_TRUE(
        loop.runUntil([&] { return complaints.find("cannot remove our groups") != std::string::npos; }, 1s));
    Namespace::ip("link set br9 up");
    const auto entries = [&] {
        Linux::GroupsByBridge all;
        EXPECT_TRUE(Linux::readAllGroups(requests.kernel, all));
        std::size_t count = 0;
        for (const auto& [bridge, held] : all) count += held.size();
        return std::to_string(count);
    };
    EXPECT_UNTIL("0", entries());
    Namespace::ip("link set br9 name br0");
    EXPECT_TABLE("01@p1 02@p1");
    // A crash, and then another mark.
    life.reset();
    config->groupProtocolIs(79);
    begin();
    want(2, "p1", false);
    EXPECT_TABLE("01@p1");
    // A crash, and then another bridge.
    Namespace::ip("link add br1 up type bridge");
    life.reset();
    config->bridgeIs("br1");
    complaints.clear();
    begin();
    EXPECT_UNTIL("0", entries());
    EXPECT_EQ(complaints,
              "good: bridge br1: bridge br0 has groups with our mark (1), left by an earlier run: they are "
              "removed\n");
    life->agent.withdraw();
    EXPECT_TRUE(std::filesystem::is_empty(directory.file("")));
}

TEST_F(GroupAgentTest, PortsAndBridgesMayGoAndComeBack) {
    wantMany(0, 1000);
    want(0, "p2");
    EXPECT_COUNTS(1001, 0);
    Namespace::ip("link set p1 nomaster");
    EXPECT_COUNTS(1, 0);
    EXPECT_EQ(table(), "00@p2");
    Namespace::ip("link set p1 master br0");
    EXPECT_COUNTS(1001, 0);
    config->groupTableSizeIs(8192);
    Namespace::ip("link del br0");
    EXPECT_COUNTS(0, 0);
    makeBridge();
    EXPECT_COUNTS(1001, 0);
    EXPECT_EQ(status->tableSize(), 8192U);
    EXPECT_EQ(complaints, "");
}

TEST_F(GroupAgentTest, WhatHappensUnheardIsReadAnew) {
    const auto bridge = if_nametoindex("br0");
    const auto member = [](unsigned n) {
        return Linux::GroupMember{{address(n), 0, {}}, if_nametoindex("p1")};
    };
    want(1, "p1");
    want(2, "p1");
    EXPECT_COUNTS(2, 0);
    // More notifications than can wait.
    std::vector<Linux::NetlinkMessage> noise;
    for (int i = 0; i < 15'000; ++i) {
        noise.push_back(Linux::groupAdd(bridge, member(9), 4));
        noise.push_back(Linux::groupDelete(bridge, member(9)));
    }
    noise.push_back(Linux::groupDelete(bridge, member(1)));
    for (const auto& answer : requests.kernel.carryOut(noise)) ASSERT_TRUE(answer);
    EXPECT_EQ(table(), "02@p1");
    EXPECT_TABLE("01@p1 02@p1");

    // Somebody is faster by a moment: adds what we add, deletes what we delete.
    settle(Linux::GroupAgent::grace);
    bool done = false;
    requests.refuse = [&](std::span<const std::byte>) -> std::optional<Linux::NetlinkAnswer> {
        if (!std::exchange(done, true)) {
            EXPECT_TRUE(requests.carryOut(Linux::groupAdd(bridge, member(3), 4)));
            EXPECT_TRUE(requests.carryOut(Linux::groupDelete(bridge, member(2))));
        }
        return std::nullopt;
    };
    want(2, "p1", false);
    want(3, "p1");
    EXPECT_COUNTS(2, 0);
    EXPECT_EQ(table(), "01@p1 03@p1/another");
    EXPECT_EQ(complaints, "");
}

TEST_F(GroupAgentTest, AKernelThatMarksNothingIsServedWithAFile) {
    requests.refuse = [](std::span<const std::byte> request) -> std::optional<Linux::NetlinkAnswer> {
        if (request.size() != Linux::groupAdd(1, {}, 78).bytes().size()) return std::nullopt;
        return Linux::NetlinkAnswer{EINVAL, "Unknown attribute type"};
    };
    marks = Linux::Ability::absent;
    mdb("add", "p2", "09");
    want(1, "p1");
    want(2, "p1");
    EXPECT_COUNTS(2, 0);
    EXPECT_EQ(table(), "01@p1/another 02@p1/another 09@p2/another");
    begin();
    wanted->fdbConfig(VlanId{2})->ethGroupDel(address(1));
    EXPECT_TABLE("02@p1/another 09@p2/another");
    life->agent.withdraw();
    EXPECT_EQ(table(), "09@p2/another");
}

TEST_F(GroupAgentTest, AnAuditNamesWhatDiffersAndRepairsIt) {
    want(1, "p1");
    want(0xFF, "p2");
    wanted->fdbConfigIs(VlanId{2})
        ->ethGroupIs(EthAddr::fromNumber(0x0180C200000E))
        ->intfIs(IntfId{"p1"}, true);
    EXPECT_COUNTS(2, 1);
    EXPECT_EQ(life->agent.audit(false).size(), 1U);
    settle(Linux::GroupAgent::grace);
    complaints.clear();
    mdb("del", "p1", "01");
    // As an earlier life of ours might.
    const Linux::GroupMember stale{{address(1), 0, {}}, if_nametoindex("p2")};
    EXPECT_TRUE(requests.carryOut(Linux::groupAdd(if_nametoindex("br0"), stale, 78)));
    Namespace::ip("link set br0 type bridge mcast_snooping 0");
    std::string all;
    for (const std::string& line : life->agent.audit(true)) all += line + '\n';
    EXPECT_EQ(all,
              "group 01:80:c2:00:00:0e on p1: missing (no bridge forwards that address to chosen ports)\n"
              "group 91:e0:f0:00:00:01 on p1: missing\n"
              "group 91:e0:f0:00:00:01 on p2: ours, but not wanted\n"
              "multicast snooping of br0 is off\n");
    settle();
    EXPECT_EQ(table(), "01@p2 ff@p2") << "nothing can be changed meanwhile";
    Namespace::ip("link set br0 type bridge mcast_snooping 1");
    EXPECT_TABLE("01@p1 ff@p2");
    EXPECT_NE(complaints.find("snooping is off"), std::string::npos);
    EXPECT_NE(complaints.find("good: bridge br0: multicast snooping is on again"), std::string::npos);
}

TEST_F(GroupAgentTest, AnotherAgentThatUndoesItAllIsNotFoughtForEver) {
    want(1, "p1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TABLE("01@p1");
        settle();
        mdb("del", "p1", "01");
    }
    EXPECT_COUNTS(0, 1);
    EXPECT_EQ(table(), "");
    EXPECT_EQ(complaints,
              "bridge br0: group 91:e0:f0:00:00:01 on p1: somebody else has changed it 3 times "
              "within a minute; left alone for a minute\n");
}

}  // namespace
