#include "Linux/Capabilities.h"
#include "Linux/EpollLoop.h"
#include "Linux/ShaperAgent.h"
#include "Runtime/Text.h"
#include "tests/ports/Namespace.h"

#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>

using namespace std::chrono_literals;
using Runtime::concat;

namespace {

/// A bridge with the port p1, whose queues are shaped by token buckets.
class ShaperAgentTest : public PortsTest {
protected:
    /// One life of the daemon.
    struct Life {
        explicit Life(ShaperAgentTest& t, Runtime::Duration settling = 0s)
            : devices{t.loop},
              agent{t.loop,
                    devices,
                    t.kernel,
                    {t.config, t.wanted, std::make_shared<Qos::Status>(), std::make_shared<Qos::HwStatus>(),
                     t.capabilities},
                    [this, &t] {
                        t.loop.post([this, alive = std::weak_ptr{token}] {
                            if (alive.expired()) return;
                            agent.raise();
                            agent.lower();
                        });
                    },
                    [&t](const std::string& line) { t.said += line + '\n'; }} {
            EXPECT_EQ(agent.start(settling), "");
            EXPECT_EQ(devices.start(), "");
        }
        std::shared_ptr<int> token = std::make_shared<int>();
        Linux::DeviceTable devices;
        Linux::ShaperAgent agent;
    };

    void SetUp() override {
        PortsTest::SetUp();
        if (IsSkipped()) return;
        Namespace::ip("link add br0 up type bridge");
        Namespace::cable("p1", "p2");
        Namespace::ip("link set p1 master br0");
        config->bridgeIs("br0");
        config->shapingIs(Linux::Shaping::htb);
        ASSERT_EQ(kernel.open(), "");
    }
    static void tc(const std::string& arguments) {
        ASSERT_EQ(std::system(("tc " + arguments).c_str()), 0) << arguments;
    }
    void reserve(std::uint32_t a, std::uint32_t b, const std::string& port = "p1") const {
        const auto intf = wanted->intfConfigIs(IntfId{port});
        for (const auto& [number, rate] : {std::pair{std::uint8_t{7}, a}, {std::uint8_t{6}, b}}) {
            const Qos::TxQueue queue{number, Qos::TxQueueType::unicast};
            intf->txQueueConfigDel(queue);
            if (rate != 0)
                intf->txQueueConfigIs(queue, 2, Qos::noPercent, {ShapeRateVal{rate}, 0}, Qos::noGuaranteedBw);
        }
    }
    /// "htb 75000 20000": the root and the rates of the classes, or "none".
    std::string shaped(const std::string& port = "p1") {
        const unsigned ifindex = if_nametoindex(port.c_str());
        std::map<unsigned, Linux::PortQueues> queues;
        EXPECT_EQ(Linux::readQueues(kernel, {ifindex}, queues), "");
        const Linux::PortQueues& have = queues[ifindex];
        if (!have.root) return "none";
        const auto rates = Linux::shapedRates(have, config->queueHandle());
        return concat(have.root->kind, ' ', rates.a, ' ', rates.b);
    }
    /// Runs until the port is shaped like that; how it is at last.
    std::string until(const std::string& text, const std::string& port = "p1") {
        loop.runUntil([&] { return shaped(port) == text; }, 5s);
        return shaped(port);
    }

    Linux::EpollLoop loop;
    Linux::NetlinkRequests kernel;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    std::shared_ptr<Qos::Input::Config> wanted = std::make_shared<Qos::Input::Config>();
    std::shared_ptr<Linux::CapabilityStatus> capabilities = std::make_shared<Linux::CapabilityStatus>();
    std::string said;
    /// Changes of queues by anybody: classes, and disciplines.
    int classChanges = 0;
    int queueChanges = 0;
    Linux::NetlinkNotices changes{loop,
                                  [this](const nlmsghdr& message) {
                                      if (Linux::decodeClass(message)) ++classChanges;
                                      if (Linux::decodeQdisc(message)) ++queueChanges;
                                  },
                                  [] {}};
};

TEST_F(ShaperAgentTest, FollowsTheReservationsInPlaceAndGivesBackAllInTheEnd) {
    Life life{*this};
    EXPECT_FALSE(loop.runUntil([&] { return shaped() != "none"; }, 50ms)) << "nothing is reserved";
    reserve(75'000, 20'000);
    ASSERT_EQ(until("htb 75000 20000"), "htb 75000 20000") << said;
    EXPECT_EQ(said, "p1: queues shaped by token buckets\n");
    EXPECT_TRUE(life.agent.audit(false).empty());

    ASSERT_EQ(changes.open({RTNLGRP_TC}, 1 << 20), "");
    reserve(150'000, 20'000);
    EXPECT_EQ(until("htb 150000 20000"), "htb 150000 20000");
    EXPECT_TRUE(loop.runUntil([&] { return classChanges >= 1; }, 5s));
    EXPECT_EQ(queueChanges, 0) << "no queue was emptied";
    reserve(150'000, 0);
    EXPECT_EQ(until("htb 150000 0"), "htb 150000 0");
    reserve(6'000'000, 5'000'000);
    EXPECT_EQ(until("none"), "none") << "does not fit into the port";
    reserve(0, 5000);
    EXPECT_EQ(until("htb 0 5000"), "htb 0 5000");
    life.agent.stop();
    EXPECT_EQ(shaped(), "none");
}

TEST_F(ShaperAgentTest, ARestartChangesNothingThatIsRightAndKeepsWhatMayBeAskedForAgain) {
    reserve(75'000, 20'000);
    {
        Life life{*this};
        ASSERT_EQ(until("htb 75000 20000"), "htb 75000 20000") << said;
    }
    ASSERT_EQ(changes.open({RTNLGRP_TC}, 1 << 20), "");
    {
        Life life{*this};
        EXPECT_FALSE(loop.runUntil([&] { return classChanges + queueChanges > 0; }, 50ms));
        EXPECT_TRUE(life.agent.audit(true).empty());
    }
    wanted->intfConfigDelAll();
    Life life{*this, 300ms};
    EXPECT_FALSE(loop.runUntil([&] { return classChanges > 0; }, 100ms));
    EXPECT_EQ(until("htb 0 0"), "htb 0 0") << "nobody asked again";
}

TEST_F(ShaperAgentTest, LeavesAnothersRootAndRepairsItsOwnWithinLimits) {
    tc("qdisc add dev p1 root handle 7: pfifo");
    Life life{*this};
    reserve(75'000, 0);
    loop.runUntil([&] { return !said.empty(); }, 5s);
    EXPECT_EQ(said, "p1: shaping not available (somebody else has set up the queues (pfifo))\n");
    EXPECT_EQ(life.agent.audit(true).size(), 1U);
    EXPECT_EQ(shaped(), "pfifo 0 0");
    tc("qdisc del dev p1 root");
    EXPECT_EQ(until("htb 75000 0"), "htb 75000 0");
    said.clear();
    for (int i = 0; i < 3; ++i) {
        tc("class change dev p1 classid 100:10 htb rate 1mbit");
        EXPECT_EQ(until("htb 75000 0"), "htb 75000 0") << i;
    }
    EXPECT_NE(said.find("p1: class A is shaped to 1000 kbit/s instead of 75000; somebody else"),
              std::string::npos)
        << said;
    tc("class change dev p1 classid 100:10 htb rate 1mbit");
    EXPECT_TRUE(loop.runUntil([&] { return said.find("again and again") != std::string::npos; }, 5s)) << said;
    EXPECT_EQ(shaped(), "htb 1000 0") << "left alone";
    reserve(80'000, 0);
    EXPECT_EQ(until("htb 80000 0"), "htb 80000 0") << "until something else is wanted";
}

TEST_F(ShaperAgentTest, APortThatLeavesIsGivenBackAndOneThatComesIsShaped) {
    reserve(75'000, 0);
    Life life{*this};
    EXPECT_EQ(until("htb 75000 0"), "htb 75000 0");
    Namespace::ip("link set p1 nomaster");
    EXPECT_EQ(until("none"), "none");
    Namespace::ip("link set p1 master br0");
    EXPECT_EQ(until("htb 75000 0"), "htb 75000 0");
    Namespace::ip("link set p1 down");
    Namespace::ip("link set p1 name p9");
    Namespace::ip("link set p9 up");
    EXPECT_EQ(until("htb 0 0", "p9"), "htb 0 0") << "nothing is reserved under this name";
    EXPECT_FALSE(capabilities->shaping(IntfId{"p1"}));
}

TEST_F(ShaperAgentTest, ANewSpeedIsTakenIntoAccountAndHalfDuplexIsNotShaped) {
    const Linux::FileDescriptor tap{open("/dev/net/tun", O_RDWR | O_CLOEXEC)};
    ifreq request{};
    std::string{"t1"}.copy(request.ifr_name, sizeof request.ifr_name);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(tap.get(), TUNSETIFF, &request) != 0) GTEST_SKIP() << "no taps";
    const auto speed = [](const std::string& mode) {
        ASSERT_EQ(std::system(("ethtool -s t1 " + mode).c_str()), 0);
    };
    speed("speed 1000 duplex full");
    Namespace::ip("link set t1 up master br0");
    reserve(75'000, 0, "t1");
    Life life{*this};
    EXPECT_EQ(until("htb 75000 0", "t1"), "htb 75000 0") << said;
    speed("speed 100 duplex full");
    const auto portRate = [&] {
        std::map<unsigned, Linux::PortQueues> queues;
        const unsigned t1 = if_nametoindex("t1");
        EXPECT_EQ(Linux::readQueues(kernel, {t1}, queues), "");
        const auto* whole = queues[t1].findClass(Linux::queueId(config->queueHandle(), 1));
        return whole != nullptr ? whole->rate * 8 : 0;
    };
    EXPECT_TRUE(loop.runUntil([&] { return portRate() == 100'000'000; }, 5s)) << portRate();
    speed("speed 100 duplex half");
    EXPECT_EQ(until("none", "t1"), "none");
    EXPECT_NE(said.find("t1: shaping not available (the link is half duplex)\n"), std::string::npos) << said;
}

TEST_F(ShaperAgentTest, AbilitiesAreFoundOutWithoutTouchingAnything) {
    ASSERT_EQ(changes.open({RTNLGRP_TC}, 1 << 20), "");
    const Linux::Abilities found = Linux::probeAbilities();
    for (const auto& [name, ability] : Linux::CapabilityStatus::abilityFields)
        EXPECT_NE(found.*ability, Linux::Ability::unknown) << name;
    EXPECT_EQ(found.htb, Linux::Ability::present);
    EXPECT_EQ(found.groups, Linux::Ability::present);
    EXPECT_FALSE(loop.runUntil([&] { return classChanges + queueChanges > 0; }, 20ms));
    // What the probe found absent is refused by a real port as well, and the next way is taken.
    config->shapingIs(Linux::Shaping::automatic);
    reserve(75'000, 0);
    Life life{*this};
    loop.runUntil([&] { return shaped() != "none"; }, 5s);
    const auto shaper = capabilities->shaping(IntfId{"p1"})->shaper();
    EXPECT_EQ(shaper, Linux::Shaper::htb) << "one transmit queue is not enough for credits";
}

}  // namespace
