#include "Linux/EpollLoop.h"
#include "Linux/GroupAgent.h"
#include "Runtime/Text.h"
#include "tests/ports/Namespace.h"

#include <filesystem>
#include <fstream>
#include <linux/rtnetlink.h>
#include <map>

using namespace std::chrono_literals;

namespace {

/// The kernel, with faults that this machine's own does not have.
class FaultyKernel final : public Linux::NetlinkChannel {
public:
    using NetlinkChannel::carryOut;
    Linux::NetlinkAnswer dump(std::uint16_t request, std::span<const std::byte> body,
                              const std::function<void()>& begin,
                              const Linux::NetlinkHandler& each) override {
        return kernel.dump(request, body, begin, each);
    }
    std::vector<Linux::NetlinkAnswer> carryOut(std::span<Linux::NetlinkMessage> requests) override {
        std::vector<Linux::NetlinkAnswer> answers;
        for (Linux::NetlinkMessage& request : requests) {
            const auto refusal = refuse ? refuse(request.bytes()) : std::nullopt;
            answers.push_back(refusal ? *refusal : kernel.carryOut(std::span{&request, 1}).front());
        }
        return answers;
    }
    Linux::NetlinkAnswer ask(Linux::NetlinkMessage request, const Linux::NetlinkHandler& each) override {
        return kernel.ask(std::move(request), each);
    }

    Linux::NetlinkRequests kernel;
    std::function<std::optional<Linux::NetlinkAnswer>(std::span<const std::byte> request)> refuse;
};

class GroupAgentTest : public PortsTest {
protected:
    /// The agent in one life of the process.
    struct Life {
        explicit Life(GroupAgentTest& test)
            : devices{test.loop},
              agent{test.loop,
                    devices,
                    test.requests,
                    test.config,
                    test.wanted,
                    test.status,
                    [this, &test] { test.loop.post([this] { agent.apply(); }); },
                    [&test](const std::string& line) { test.complaints += line + '\n'; },
                    test.journal} {}
        Linux::DeviceTable devices;
        Linux::GroupAgent agent;
    };

    void SetUp() override {
        PortsTest::SetUp();
        if (!net.made()) return;
        // Or else the hosts that live at the cables' ends would join groups of their own.
        std::ofstream{"/proc/sys/net/ipv6/conf/default/disable_ipv6"} << 1;
        makeBridge();
        Namespace::cable("p1", "h1");
        Namespace::cable("p2", "h2");
        join();
        ASSERT_EQ(requests.kernel.open(), "");
        config->bridgeIs("br0");
        wanted->fdbConfigPriorityIs(1);
        begin();
    }
    void TearDown() override { std::filesystem::remove(journal); }

    static void makeBridge() { Namespace::ip("link add br0 up type bridge mcast_querier 0"); }
    static void join() {
        Namespace::ip("link set p1 master br0");
        Namespace::ip("link set p2 master br0");
    }
    /// Ends the life before as a crash does.
    void begin() {
        settle();
        life.reset();
        life = std::make_unique<Life>(*this);
        ASSERT_EQ(life->devices.start(), "");
        ASSERT_EQ(life->agent.start(), "");
    }
    void want(unsigned n, const char* port, bool member = true) {
        const auto group =
            wanted->fdbConfigIs(VlanId{2})->ethGroupIs(EthAddr::fromNumber(0x91E0F0000000 + n));
        group->intfIs(IntfId{port}, member);
    }
    void wantMany(unsigned from, unsigned to, bool member = true) {
        for (unsigned n = from; n < to; ++n) want(n, "p1", member);
    }
    /// "01@p1 02@p2/another", as the kernel has it.
    std::string table() {
        std::map<std::string, std::string> found;
        const auto answer = requests.kernel.dump(
            RTM_GETMDB, Linux::groupDumpBody(), [&] { found.clear(); },
            [&](const nlmsghdr& message) {
                for (const auto& entry : Linux::decodeGroups(message, if_nametoindex("br0"))) {
                    std::array<char, IF_NAMESIZE> port{};
                    if_indextoname(entry.member.port, port.data());
                    if (entry.member.group.ip.empty())
                        found.emplace(
                            Runtime::concat(entry.member.group.mac.text().substr(15), '@', port.data()),
                            entry.protocol == 78 ? "" : "/another");
                }
            });
        EXPECT_TRUE(answer) << answer.problem();
        std::string text;
        for (const auto& [name, owner] : found) text += Runtime::concat(text.empty() ? "" : " ", name, owner);
        return text;
    }
    std::string tableUntil(const std::string& expected) {
        loop.runUntil([&] { return table() == expected; }, 5s);
        return table();
    }
    /// Runs until so many are programmed and so many failed.
    std::string counts(std::size_t programmed, std::size_t failed) {
        loop.runUntil([&] { return status->programmed() == programmed && status->failed().size() == failed; },
                      5s);
        return Runtime::concat(status->programmed(), " and ", status->failed().size());
    }
    [[nodiscard]] bool snooping() const {
        life->devices.readAll();
        return life->devices.find("br0")->bridgeSettings->multicastSnooping;
    }
    static void mdb(const std::string& arguments) {
        ASSERT_EQ(std::system(("bridge mdb " + arguments).c_str()), 0);
    }
    /// Lets happen what is on its way.
    void settle() {
        loop.runUntil([] { return false; }, 20ms);
    }

    const std::string journal = testing::TempDir() + "groups-" + std::to_string(getpid());
    std::string complaints;
    Linux::EpollLoop loop;
    FaultyKernel requests;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    std::shared_ptr<Bridging::Input::Config> wanted = std::make_shared<Bridging::Input::Config>();
    std::shared_ptr<Linux::GroupStatus> status = std::make_shared<Linux::GroupStatus>();
    std::unique_ptr<Life> life;
};

TEST_F(GroupAgentTest, TheTableFollowsTheRecordAndKeepsWhatIsAnothers) {
    mdb("add dev br0 port p2 grp 91:e0:f0:00:00:02 permanent");
    mdb("add dev br0 port p2 grp 91:e0:f0:00:00:09 permanent");
    want(1, "p1");
    want(1, "p2", false);
    want(2, "p1");
    want(2, "p2");
    EXPECT_EQ(tableUntil("01@p1 02@p1 02@p2/another 09@p2/another"),
              "01@p1 02@p1 02@p2/another 09@p2/another");
    settle();
    EXPECT_EQ(Runtime::concat(status->wanted(), ' ', status->programmed(), ' ', status->foreign(), ' ',
                              status->tableUsed()),
              "3 3 1 3");
    // Taken away by its owner, what is wanted becomes ours.
    mdb("del dev br0 port p2 grp 91:e0:f0:00:00:02");
    EXPECT_EQ(tableUntil("01@p1 02@p1 02@p2 09@p2/another"), "01@p1 02@p1 02@p2 09@p2/another");
    // Ours, replaced by somebody's, is his.
    mdb("del dev br0 port p1 grp 91:e0:f0:00:00:02");
    mdb("add dev br0 port p1 grp 91:e0:f0:00:00:02 permanent");
    loop.runUntil([&] { return status->foreign() == 1; }, 5s);
    loop.runUntil([] { return false; }, Linux::GroupAgent::grace);
    wanted->fdbConfigDel(VlanId{2});
    EXPECT_EQ(tableUntil("02@p1/another 09@p2/another"), "02@p1/another 09@p2/another");
    want(1, "p1");
    EXPECT_EQ(counts(1, 0), "1 and 0");
    for (int i = 0; i < 7; ++i) {
        want(1, "p1", i % 2 == 1);
        life->agent.apply();  // the news of what it did is not heard before the next
    }
    wanted->fdbConfigPriorityIs(0);
    settle();
    EXPECT_EQ(tableUntil("02@p1/another 09@p2/another"), "02@p1/another 09@p2/another");
    EXPECT_EQ(complaints, "");
}

TEST_F(GroupAgentTest, AfterACrashWhatStaysHasNoGapAndTheRestGoes) {
    want(1, "p1");
    want(2, "p1");
    EXPECT_EQ(counts(2, 0), "2 and 0");
    life.reset();
    wanted->fdbConfigDel(VlanId{2});
    begin();
    bool gap = false;
    const auto seen = [&](const std::string& expected) {
        return loop.runUntil(
            [&] {
                const std::string now = table();
                gap = gap || now.find("01@p1") == std::string::npos;
                return now == expected;
            },
            Linux::GroupAgent::grace + 500ms);
    };
    want(3, "p1");
    EXPECT_TRUE(seen("01@p1 02@p1 03@p1")) << table();
    want(1, "p1");
    // What this life made is not held back.
    want(3, "p1", false);
    EXPECT_TRUE(seen("01@p1 02@p1")) << table();
    want(3, "p1");
    EXPECT_TRUE(seen("01@p1 03@p1")) << table();
    EXPECT_FALSE(gap);
    life->agent.withdraw();
    EXPECT_EQ(table(), "");
}

TEST_F(GroupAgentTest, AFullTableNeverStopsSnooping) {
    Namespace::ip("link set br0 type bridge mcast_hash_max 64");
    settle();
    wantMany(0, 80);
    want(47, "p2");  // in the last group that has a place
    EXPECT_EQ(counts(49, 32), "49 and 32");
    EXPECT_TRUE(snooping());
    EXPECT_EQ(status->failed().begin()->second, "the bridge's multicast table is full");
    loop.runUntil([&] { return !complaints.empty(); }, 5s);
    EXPECT_EQ(complaints,
              "bridge br0: group 2/91:e0:f0:00:00:30/p1 is not forwarded: the bridge's multicast "
              "table is full (and 31 others)\n");
    // The kernel frees the places of the first only a moment later.
    wantMany(0, 48, false);
    wantMany(80, 90);
    EXPECT_EQ(counts(43, 0), "43 and 0");
    EXPECT_TRUE(snooping());
    wantMany(100, 130);
    EXPECT_EQ(counts(48, 25), "48 and 25");
    Namespace::ip("link set br0 type bridge mcast_hash_max 128");
    EXPECT_EQ(counts(73, 0), "73 and 0");
    EXPECT_TRUE(snooping());
}

TEST_F(GroupAgentTest, WhenTheTableIsFullAllTheSameSnoopingComesBackAndRoomIsMade) {
    wantMany(0, 10);
    EXPECT_EQ(counts(10, 0), "10 and 0");
    bool lowered = false;
    requests.refuse = [&](std::span<const std::byte>) -> std::optional<Linux::NetlinkAnswer> {
        // Behind the agent's back.
        if (!std::exchange(lowered, true)) Namespace::ip("link set br0 type bridge mcast_hash_max 32");
        return std::nullopt;
    };
    wantMany(10, 50);
    EXPECT_EQ(counts(16, 34), "16 and 34");
    EXPECT_TRUE(snooping());
    EXPECT_EQ(status->tableUsed(), 16U);
    EXPECT_EQ(complaints,
              "bridge br0: the multicast table was full at 32 groups, so the kernel switched snooping "
              "off and flooded everything; it is switched on again\n");
    want(0, "p2");
    EXPECT_EQ(counts(17, 34), "17 and 34");
}

TEST_F(GroupAgentTest, PortsAndBridgesMayGoAndComeBack) {
    wantMany(0, 1000);
    want(0, "p2");
    EXPECT_EQ(counts(1001, 0), "1001 and 0");
    Namespace::ip("link set p1 nomaster");
    EXPECT_EQ(counts(1, 0), "1 and 0");
    EXPECT_EQ(table(), "00@p2");
    Namespace::ip("link set p1 master br0");
    EXPECT_EQ(counts(1001, 0), "1001 and 0");
    Namespace::ip("link set p1 down name p7");
    EXPECT_EQ(counts(1, 0), "1 and 0") << "the record knows no p7";
    Namespace::ip("link set p7 name p1");
    Namespace::ip("link set p1 up");
    EXPECT_EQ(counts(1001, 0), "1001 and 0");
    config->groupTableSizeIs(8192);
    Namespace::ip("link del br0");
    EXPECT_EQ(counts(0, 0), "0 and 0");
    makeBridge();
    join();
    EXPECT_EQ(counts(1001, 0), "1001 and 0");
    EXPECT_EQ(status->tableSize(), 8192U);
    EXPECT_EQ(complaints, "");
}

TEST_F(GroupAgentTest, WhatHappensUnheardIsReadAnew) {
    const auto bridge = if_nametoindex("br0");
    const auto member = [](unsigned n) {
        return Linux::GroupMember{{EthAddr::fromNumber(0x91E0F0000000 + n), 0, {}}, if_nametoindex("p1")};
    };
    want(1, "p1");
    want(2, "p1");
    EXPECT_EQ(counts(2, 0), "2 and 0");
    // More notifications than can wait.
    std::vector<Linux::NetlinkMessage> noise;
    for (int i = 0; i < 15'000; ++i) {
        noise.push_back(Linux::groupAdd(bridge, member(9), 4));
        noise.push_back(Linux::groupDelete(bridge, member(9)));
    }
    noise.push_back(Linux::groupDelete(bridge, member(1)));
    for (const auto& answer : requests.kernel.carryOut(noise)) ASSERT_TRUE(answer);
    EXPECT_EQ(table(), "02@p1");
    EXPECT_EQ(tableUntil("01@p1 02@p1"), "01@p1 02@p1");

    // Somebody is faster by a moment: adds what we add, deletes what we delete.
    loop.runUntil([] { return false; }, Linux::GroupAgent::grace);
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
    EXPECT_EQ(counts(2, 0), "2 and 0");
    EXPECT_EQ(table(), "01@p1 03@p1/another");
    EXPECT_EQ(complaints, "");
}

TEST_F(GroupAgentTest, AKernelThatMarksNothingIsServedWithAJournal) {
    requests.refuse = [](std::span<const std::byte> request) -> std::optional<Linux::NetlinkAnswer> {
        const bool marked = request.size() == Linux::groupAdd(1, {}, 78).bytes().size();
        if (!marked) return std::nullopt;
        return Linux::NetlinkAnswer{EINVAL, "Unknown attribute type"};
    };
    mdb("add dev br0 port p2 grp 91:e0:f0:00:00:09 permanent");
    want(1, "p1");
    want(2, "p1");
    EXPECT_EQ(counts(2, 0), "2 and 0");
    EXPECT_EQ(table(), "01@p1/another 02@p1/another 09@p2/another");
    begin();
    wanted->fdbConfig(VlanId{2})->ethGroupDel(EthAddr::fromNumber(0x91E0F0000001));
    EXPECT_EQ(tableUntil("02@p1/another 09@p2/another"), "02@p1/another 09@p2/another");
    life->agent.withdraw();
    EXPECT_EQ(table(), "09@p2/another");
}

TEST_F(GroupAgentTest, AnAuditNamesWhatDiffersAndRepairsIt) {
    want(1, "p1");
    want(0xFF, "p2");
    wanted->fdbConfigIs(VlanId{2})
        ->ethGroupIs(EthAddr::fromNumber(0x0180C200000E))
        ->intfIs(IntfId{"p1"}, true);
    EXPECT_EQ(counts(2, 1), "2 and 1");
    EXPECT_EQ(life->agent.audit(false).size(), 1U);
    loop.runUntil([] { return false; }, Linux::GroupAgent::grace);
    complaints.clear();
    mdb("del dev br0 port p1 grp 91:e0:f0:00:00:01");
    // As an earlier life of ours might.
    const Linux::GroupMember stale{{EthAddr::fromNumber(0x91E0F0000001), 0, {}}, if_nametoindex("p2")};
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
    EXPECT_EQ(tableUntil("01@p1 ff@p2"), "01@p1 ff@p2");
    EXPECT_NE(complaints.find("snooping is off"), std::string::npos);
    EXPECT_NE(complaints.find("snooping is on again"), std::string::npos);
}

TEST_F(GroupAgentTest, AnotherAgentThatUndoesItAllIsNotFoughtForEver) {
    want(1, "p1");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(tableUntil("01@p1"), "01@p1");
        settle();
        mdb("del dev br0 port p1 grp 91:e0:f0:00:00:01");
    }
    EXPECT_EQ(counts(0, 1), "0 and 1");
    EXPECT_EQ(table(), "");
    EXPECT_EQ(complaints,
              "bridge br0: group 91:e0:f0:00:00:01 on p1: somebody else has changed it 3 times "
              "within a minute; left alone for a minute\n");
}

}  // namespace
