#include "Linux/doctor/Capabilities.h"
#include "Linux/queues/ShaperAgent.h"
#include "Runtime/Text.h"
#include "tests/ports/FaultyKernel.h"
#include "tests/ports/Namespace.h"

#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <map>
#include <sys/ioctl.h>
#include <thread>

using namespace std::chrono_literals;
using Runtime::concat;

namespace {

/// Can pretend to have queues and filters that this machine's own kernel lacks.
class PretendingKernel final : public FaultyKernel {
public:
    using FaultyKernel::carryOut;
    Linux::NetlinkAnswer dump(std::uint16_t request, std::span<const std::byte> body,
                              const std::function<void()>& begin,
                              const Linux::NetlinkHandler& each) override {
        if (!pretending) return FaultyKernel::dump(request, body, begin, each);
        const auto& about = *reinterpret_cast<const tcmsg*>(body.data());
        const Linux::PortQueues& queues = have[about.tcm_ifindex];
        for (const auto& held : queues.classes)
            if (request == RTM_GETTCLASS) each(header(Linux::newClass(held, 0)));
        for (const auto& held : queues.filters)
            if (request == RTM_GETTFILTER && held.parent == about.tcm_parent)
                each(header(Linux::newFilter(held, 0)));
        return {};
    }
    std::vector<Linux::NetlinkAnswer> carryOut(std::span<Linux::NetlinkMessage> requests) override {
        if (!pretending) return FaultyKernel::carryOut(requests);
        const auto request = requests.front().bytes();
        if (const auto refusal = refuse ? refuse(request) : std::nullopt) return {*refusal};
        Linux::PortQueues& queues = have[about(request).tcm_ifindex];
        if (about(request).tcm_parent == Linux::ingressFilters && !queues.ingress)
            return {{EINVAL, "Parent Qdisc doesn't exists"}};
        queues.take(header(requests.front()));
        return {{}};
    }
    Linux::NetlinkAnswer ask(Linux::NetlinkMessage request, const Linux::NetlinkHandler& each) override {
        if (!pretending) return FaultyKernel::ask(std::move(request), each);
        ++asked;
        const Linux::PortQueues& queues = have[about(request.bytes()).tcm_ifindex];
        const std::uint32_t parent = about(request.bytes()).tcm_parent;
        const Linux::Qdisc* held = parent == TC_H_ROOT && queues.root        ? &*queues.root
                                   : parent == TC_H_CLSACT && queues.ingress ? &*queues.ingress
                                                                             : queues.child(parent);
        if (held != nullptr) each(header(Linux::newQdisc(*held, 0)));
        return {held != nullptr ? 0 : ENOENT, {}};
    }
    static const nlmsghdr& header(const Linux::NetlinkMessage& message) {
        return *reinterpret_cast<const nlmsghdr*>(message.bytes().data());
    }
    static const tcmsg& about(std::span<const std::byte> request) {
        return *reinterpret_cast<const tcmsg*>(request.data() + sizeof(nlmsghdr));
    }
    bool pretending = false;
    std::map<int, Linux::PortQueues> have;
};

/// A bridge with the port p1, whose queues are shaped by token buckets.
class ShaperAgentTest : public PortsTest {
protected:
    /// One life of the daemon.
    struct Life {
        explicit Life(ShaperAgentTest& t, Runtime::Duration settling = 0s, Runtime::Duration audit = 1h)
            : devices{t.loop},
              agent{t.loop,
                    devices,
                    t.kernel,
                    {t.config, t.wanted, std::make_shared<Qos::Status>(), std::make_shared<Qos::HwStatus>(),
                     t.capabilities, t.refusals, t.domain},
                    [this, &t] {
                        t.loop.post([this, alive = std::weak_ptr{token}] {
                            if (alive.expired()) return;
                            agent.raise();
                            agent.lower();
                        });
                    },
                    [&t](auto tone, auto& line) { t.said += told(tone, line); }} {
            EXPECT_EQ(agent.start(settling, audit), "");
            EXPECT_EQ(devices.start(), "");
        }
        std::shared_ptr<int> token = std::make_shared<int>();
        Linux::DeviceTable devices;
        Linux::ShaperAgent agent;
    };

    void make() override {
        Namespace::ip("link add br0 up type bridge");
        Namespace::cable("p1", "p2");
        Namespace::ip("link set p1 master br0");
        config->bridgeIs("br0");
        config->shapingIs(Linux::Shaping::htb);
        ASSERT_EQ(kernel.kernel.open(), "");
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
    /// "htb 75000 20000": the root and the rates of the classes, or "none"; and why the port is refused, if
    /// it is.
    std::string shaped(const std::string& port = "p1") {
        const unsigned ifindex = if_nametoindex(port.c_str());
        Linux::PortQueues have;
        EXPECT_TRUE(Linux::readQueues(kernel, ifindex, config->queueHandle(), have));
        const auto rates = Linux::shapedRates(have, config->queueHandle());
        const auto refusal = refusals->port(IntfId{port});
        return (have.root ? concat(have.root->kind, ' ', rates.a, ' ', rates.b) : "none") +
               (refusal ? ", refused: " + refusal->why() : "");
    }
    /// What a crash has left; with `remove` takes it away.
    std::string left(bool remove = false) {
        return leftovers(kernel, loop, {{}, {config->queueHandle()}}, remove);
    }

    PretendingKernel kernel;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    std::shared_ptr<Qos::Input::Config> wanted = std::make_shared<Qos::Input::Config>();
    std::shared_ptr<Linux::CapabilityStatus> capabilities = std::make_shared<Linux::CapabilityStatus>();
    std::shared_ptr<Switch::Refusals> refusals = std::make_shared<Switch::Refusals>();
    std::shared_ptr<Switch::Domain> domain = std::make_shared<Switch::Domain>();
    std::string said;
};

#define EXPECT_SHAPED(text) EXPECT_UNTIL(text, shaped()) << said

TEST_F(ShaperAgentTest, FollowsTheReservationsInPlaceAndGivesBackAllInTheEnd) {
    Life life{*this};
    EXPECT_FALSE(loop.runUntil([&] { return shaped() != "none"; }, 50ms)) << "nothing is reserved";
    reserve(75'000, 20'000);
    EXPECT_SHAPED("htb 75000 20000");
    EXPECT_EQ(said, "good: p1: queues shaped by token buckets\n");
    EXPECT_TRUE(life.agent.audit(false).empty());
    Linux::PortQueues have;
    ASSERT_TRUE(Linux::readQueues(kernel, if_nametoindex("p1"), config->queueHandle(), have));
    std::map<std::uint64_t, std::uint32_t> turns;  // by octets per second: who goes before whom
    for (const Linux::TokenBucketClass& each : have.classes) turns[each.rate] = each.priority;
    turns.erase(1'250'000'000);  // the port itself
    EXPECT_EQ(turns, (decltype(turns){{75'000 * 125, 0}, {20'000 * 125, 1}, {125, 7}}));

    kernel.changes.clear();
    settle();
    const int before = kernel.asked;
    reserve(150'000, 20'000);
    settle();
    EXPECT_EQ(kernel.asked, before) << "our own doing is no news";
    EXPECT_SHAPED("htb 150000 20000");
    EXPECT_EQ(kernel.changes, (std::map<std::uint16_t, int>{{RTM_NEWTCLASS, 1}})) << "no queue is emptied";
    reserve(150'000, 0);
    life.agent.raise();
    EXPECT_EQ(shaped(), "htb 150000 20000") << "nothing is taken away before all has its new way";
    EXPECT_SHAPED("htb 150000 0");
    Namespace::ip("link set p2 down");
    settle();
    EXPECT_EQ(shaped(), "htb 150000 0") << "without a link nothing changes";
    Namespace::ip("link set p2 up");
    reserve(6'000'000, 0);
    EXPECT_SHAPED("htb 6000000 0");
    reserve(0, 6'000'000);
    EXPECT_SHAPED("htb 0 6000000") << "though the two did not fit beside each other";
    reserve(6'000'000, 4'000'000);
    EXPECT_SHAPED("none, refused: the reserved 6000000 and 4000000 kbit/s do not fit into 10000000 kbit/s");
    reserve(0, 5000);
    settle(50ms);
    EXPECT_EQ(shaped().substr(0, 15), "none, refused: ") << "else they would come again";
    (void)life.agent.audit(true);
    EXPECT_SHAPED("htb 0 5000");
    // More news of another port than the socket holds, and then one of ours.
    Namespace::cable("x1", "x2");
    Namespace::tc("qdisc add dev x1 root handle 1: htb");
    Namespace::tc("class add dev x1 classid 1:1 htb rate 1mbit");
    Namespace::run(
        "{ seq -f 'class change dev x1 classid 1:1 htb rate %gkbit' 8000;echo class change dev p1 classid "
        "100:20 htb rate 1mbit; } | tc -b - 2>&-");
    EXPECT_SHAPED("htb 0 5000");
    life.agent.stop();
    EXPECT_EQ(shaped(), "none");
}

TEST_F(ShaperAgentTest, ARestartChangesNothingThatIsRightAndKeepsWhatMayBeAskedForAgain) {
    Namespace::cable("x1", "x2");
    Namespace::tc("qdisc add dev x1 root handle 100: htb default 30");
    reserve(75'000, 20'000);
    {
        Life life{*this};
        EXPECT_SHAPED("htb 75000 20000");
    }
    kernel.changes.clear();
    {
        Life life{*this};
        settle(50ms);
        EXPECT_TRUE(life.agent.audit(true).empty());
    }
    wanted->intfConfigDelAll();
    {
        const Life life{*this, 300ms};
        settle(100ms);
        EXPECT_TRUE(kernel.changes.empty());
        EXPECT_SHAPED("htb 0 0") << "nobody asked again";
    }
    EXPECT_EQ(left(true), "p1: queues that shape classes\n") << "those of x1 bear our number by chance";
    EXPECT_EQ(shaped() + " and " + shaped("x1"), "none and htb 0 0");
}

TEST_F(ShaperAgentTest, RepairsItsOwnQueuesWithinLimits) {
    Life life{*this};
    reserve(75'000, 0);
    EXPECT_SHAPED("htb 75000 0");
    said.clear();
    for (const char* what :
         {"class change dev p1 classid 100:10 htb rate 1mbit",
          "filter del dev p1 parent 100:", "class add dev p1 parent 100:1 classid 100:99 htb rate 1mbit"}) {
        Namespace::tc(what);
        settle();
        EXPECT_UNTIL("htb 75000 0, 0 faults",
                     concat(shaped(), ", ", life.agent.audit(false).size(), " faults"))
            << what;
    }
    EXPECT_NE(said.find("p1: class A is shaped to 1000 kbit/s instead of 75000; somebody else"),
              std::string::npos)
        << said;
    Namespace::tc("class change dev p1 classid 100:10 htb rate 1mbit");
    const std::string leftAlone = "htb 1000 0, refused: somebody else changes the queues again and again";
    EXPECT_SHAPED(leftAlone);
    reserve(80'000, 0);
    EXPECT_FALSE(loop.runUntil([&] { return shaped() != leftAlone; }, 50ms));
    (void)life.agent.audit(true);
    EXPECT_SHAPED("htb 80000 0");
}

TEST_F(ShaperAgentTest, APortThatCannotBeShapedIsLeftAloneAndOnRecordBeforeAnybodyReliesOnIt) {
    Namespace::tc("qdisc add dev p1 root handle 7: pfifo");
    const auto* const foreign = "pfifo 0 0, refused: somebody else has set up the queues (pfifo)";
    {
        config->shapingIs(Linux::Shaping::none);
        Life accepted{*this};
        loop.runUntil([&] { return !said.empty(); }, 5s);
        EXPECT_EQ(shaped(), "pfifo 0 0") << said;
        EXPECT_TRUE(accepted.agent.audit(false).empty());
    }
    config->shapingIs(Linux::Shaping::htb);
    Life life{*this};
    EXPECT_SHAPED(foreign);
    for (const auto& [away, back] : {std::pair{"p2 down", "p2 up"}, {"p1 nomaster", "p1 master br0"}}) {
        Namespace::ip(std::string{"link set "} + away);
        EXPECT_SHAPED("pfifo 0 0") << "there is nothing to rely on";
        Namespace::ip(std::string{"link set "} + back);
        EXPECT_SHAPED(foreign);
    }
    EXPECT_EQ(life.agent.audit(true).size(), 1U);
    EXPECT_EQ(shaped(), foreign);
    Namespace::tc("qdisc del dev p1 root");
    EXPECT_SHAPED("none");
    Linux::Abilities abilities;
    abilities.htb = Linux::Ability::absent;
    capabilities->abilitiesAre(abilities);
    life.agent.abilitiesChanged();
    EXPECT_SHAPED("none, refused: no token buckets: the kernel has no htb");
    capabilities->abilitiesAre({});
    life.agent.abilitiesChanged();
    EXPECT_SHAPED("none") << "nothing is reserved";
    Namespace::tc("qdisc add dev p1 root handle 7: pfifo");
    EXPECT_SHAPED(foreign);
    life.agent.stop();
    EXPECT_EQ(shaped(), "pfifo 0 0") << "nobody is told anything any more";
}

TEST_F(ShaperAgentTest, WhatTheKernelRefusedIsKeptUntilItIsTriedAgainWithWhatWasAskedFor) {
    Life life{*this};
    kernel.refuseAll(RTM_NEWQDISC, EOPNOTSUPP);
    const auto* const why = "none, refused: no token buckets: Operation not supported";
    settle(50ms);
    EXPECT_EQ(shaped(), "none") << "not known yet";
    EXPECT_TRUE(capabilities->shaping(IntfId{"p1"}));
    reserve(75'000, 0);
    EXPECT_SHAPED(why);
    wanted->intfConfigDelAll();
    Namespace::ip("link set p1 mtu 1400");  // no reason to try again
    settle(50ms);
    EXPECT_EQ(shaped(), why) << "though nobody asks any more";
    EXPECT_EQ(kernel.refused, 1);
    int changed = 0;
    const auto reactor = refusals->react([&](const State::Change&) { ++changed; });
    (void)life.agent.audit(true);
    EXPECT_EQ(kernel.refused, 2);
    EXPECT_EQ(changed, 0) << "another try tells nobody that it may work";
    kernel.refuse = {};
    life.agent.abilitiesChanged();
    EXPECT_SHAPED("htb 0 0") << "nobody asked again";

    kernel.refuseAll(RTM_NEWQDISC, EBUSY);
    Namespace::tc("qdisc del dev p1 root");
    reserve(75'000, 0);
    loop.runUntil([&] { return kernel.refused > 2; }, 5s);
    EXPECT_EQ(shaped(), "none") << "it may pass";
    EXPECT_EQ(capabilities->shaping(IntfId{"p1"})->why(),
              "cannot set up the queues: Device or resource busy");
    kernel.refuseAll(RTM_GETQDISC, ENOBUFS);
    EXPECT_EQ(life.agent.audit(true),
              std::vector<std::string>{"p1: cannot read the queues: No buffer space available"});
    kernel.refuse = {};
    EXPECT_SHAPED("htb 75000 0");
}

TEST_F(ShaperAgentTest, TheTimedAuditLooksEvenWhereNobodyToldOfAnythingButNotAtForeignDevices) {
    reserve(75'000, 0);
    const Life life{*this, 0s, 100ms};
    EXPECT_SHAPED("htb 75000 0");
    // More ports than are looked at in one turn.
    std::set<unsigned> ports{if_nametoindex("p1")};
    for (std::string name = "q0"; ports.size() < 10; ++name.back()) {
        Namespace::ip("link add " + name + " master br0 type veth peer name r" + name);
        ports.insert(if_nametoindex(name.c_str()));
    }
    Namespace::cable("x1", "x2");
    settle();
    std::set<unsigned> looked;
    kernel.refuse = [&](std::span<const std::byte> request) -> std::optional<Linux::NetlinkAnswer> {
        looked.insert(static_cast<unsigned>(PretendingKernel::about(request).tcm_ifindex));
        return std::nullopt;
    };
    EXPECT_TRUE(loop.runUntil([&] { return looked.size() >= ports.size(); }, 5s));
    EXPECT_EQ(looked, ports);
}

TEST_F(ShaperAgentTest, APortThatLeavesIsGivenBackAndOneThatComesIsShaped) {
    reserve(75'000, 0);
    {
        const Life life{*this};
        EXPECT_SHAPED("htb 75000 0");
    }
    Life life{*this, 1h};
    settle(50ms);
    Namespace::rename("p1", "p9");
    EXPECT_UNTIL("htb 0 0", shaped("p9")) << "nothing is reserved under this name";
    EXPECT_FALSE(capabilities->shaping(IntfId{"p1"}));
    Namespace::rename("p9", "p1");
    EXPECT_SHAPED("htb 75000 0");
    Namespace::ip("link set p1 nomaster");
    EXPECT_SHAPED("none");
    Namespace::tc("qdisc add dev p1 root handle 100: htb");
    Namespace::ip("link add x1 up type veth peer name x2");
    Namespace::ip("link set x1 master br0");
    EXPECT_TRUE(loop.runUntil([&] { return capabilities->shaping(IntfId{"x1"}) != nullptr; }, 5s));
    EXPECT_EQ(shaped(), "htb 0 0") << "was given back once, and is none of ours any more";
    Namespace::tc("qdisc del dev p1 root");
    Namespace::ip("link set p1 master br0");
    EXPECT_SHAPED("htb 75000 0");
    Namespace::ip("link set p1 nomaster");
    life.devices.readAll();
    life.agent.stop();
    EXPECT_EQ(shaped(), "none") << "the end comes before anybody has seen to it";
}

TEST_F(ShaperAgentTest, ARaceThatIsLostForFiltersIsRunAgainAndWithoutThemThereAreNoCredits) {
    kernel.pretending = true;
    config->shapingIs(Linux::Shaping::automatic);
    Namespace::ip("link add c1 numtxqueues 4 up type veth peer name c2");
    Namespace::ip("link set c2 up");
    Namespace::ip("link set c1 master br0");
    Linux::PortQueues& c1 = kernel.have[static_cast<int>(if_nametoindex("c1"))];
    const Linux::PortQueues& p1 = kernel.have[static_cast<int>(if_nametoindex("p1"))];
    const auto shaper = [&] {
        const auto record = capabilities->shaping(IntfId{"c1"});
        return record ? record->shaper() : Linux::Shaper::none;
    };
    bool lost = false;
    std::uint16_t otherQueues = 0;
    kernel.refuse = [&](std::span<const std::byte> request) -> std::optional<Linux::NetlinkAnswer> {
        // Somebody takes away what was made for the first filter.
        if (FaultyKernel::typeOf(request) == RTM_NEWTFILTER && !std::exchange(lost, true))
            for (auto& [ifindex, queues] : kernel.have) queues.ingress.reset();
        // Not all of the port's queues can be used.
        const auto qdisc = Linux::decodeQdisc(*reinterpret_cast<const nlmsghdr*>(request.data()));
        const auto* queues = qdisc ? std::get_if<Linux::PriorityQueues>(&qdisc->options) : nullptr;
        if (queues == nullptr || queues->queues.back().count == 1) return std::nullopt;
        otherQueues = queues->queues.back().count;
        return Linux::NetlinkAnswer{EINVAL, {}};
    };
    reserve(75'000, 0, "c1");
    {
        Life life{*this};
        EXPECT_TRUE(loop.runUntil([&] { return p1.filters.size() + c1.filters.size() == 4; }, 5s)) << said;
        EXPECT_EQ(shaper(), Linux::Shaper::hardware);
        EXPECT_EQ(otherQueues, 2);
        EXPECT_LT(kernel.asked, 40) << "not over and over";
        EXPECT_EQ(said, "good: c1: queues shaped by credits in hardware\n");
        said.clear();
        c1.filters.pop_back();
        (void)life.agent.audit(true);
        EXPECT_EQ(said,
                  "c1: priority 3 of incoming frames is not mapped; somebody else changed the queues\n");
        EXPECT_EQ(c1.filters.size(), 2U);
    }
    const auto crashed = kernel.have;
    {
        Life life{*this};
        std::vector others{c1.filters.front(), c1.filters.front()};
        others[0].parent = Linux::egressFilters;
        others[1].handle += 3;  // as ours, but without the mark
        std::get<Linux::TagPriorityRule>(others[1].options).marked = false;
        c1.filters.insert(c1.filters.end(), others.begin(), others.end());
        settle(50ms);
        life.agent.stop();
        EXPECT_EQ(p1, Linux::PortQueues{}) << "the place for filters goes as well";
        EXPECT_TRUE(c1.ingress) << "where there are others'";
        EXPECT_EQ(c1.filters, others);
    }
    for (auto& [ifindex, queues] : kernel.have) queues = crashed.at(ifindex);
    const std::string filtersLeft =
        ": filters of incoming frames, and their place (clsact) if there are no others\n";
    EXPECT_EQ(left(), "p1" + filtersLeft + "c1: queues that shape classes\nc1" + filtersLeft);
    c1.children.front().handle = Linux::queueId(0x8001);
    EXPECT_EQ(left(true), "p1" + filtersLeft + "c1" + filtersLeft) << "below our number, but not ours";
    EXPECT_FALSE(c1.ingress || p1.ingress);
    c1 = {};
    kernel.refuse = [&](std::span<const std::byte> request) {
        const bool incoming = PretendingKernel::about(request).tcm_parent == Linux::ingressFilters;
        return incoming ? std::optional{Linux::NetlinkAnswer{ENOENT, {}}} : std::nullopt;
    };
    const Life life{*this};
    EXPECT_TRUE(loop.runUntil([&] { return shaper() == Linux::Shaper::htb; }, 5s)) << said;
    EXPECT_EQ(shaped("c1"), "htb 75000 0");
    EXPECT_EQ(capabilities->shaping(IntfId{"c1"})->why(),
              "no credits in hardware: the kernel has no flower filters");
}

TEST_F(ShaperAgentTest, ANewSpeedIsTakenIntoAccountAndHalfDuplexIsNotShaped) {
    const Runtime::FileDescriptor tap{open("/dev/net/tun", O_RDWR | O_CLOEXEC)};
    ifreq request{};
    std::string{"t1"}.copy(request.ifr_name, sizeof request.ifr_name);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(tap.get(), TUNSETIFF, &request) != 0) GTEST_SKIP() << "no taps";
    Namespace::run("ethtool -s t1 speed 1000 duplex full");
    Namespace::ip("link set t1 up master br0");
    reserve(75'000, 0, "t1");
    Life life{*this};
    EXPECT_UNTIL("htb 75000 0", shaped("t1")) << said;
    Namespace::run("ethtool -s t1 speed 100 duplex full");
    life.devices.readBridge(if_nametoindex("br0"));
    EXPECT_EQ(life.devices.find("t1")->mode.megabitsPerSecond, 1000U) << "is told, and not asked for";
    const auto portRate = [&] {
        Linux::PortQueues have;
        EXPECT_TRUE(Linux::readQueues(kernel, if_nametoindex("t1"), config->queueHandle(), have));
        const auto* whole = have.findClass(Linux::queueId(config->queueHandle(), 1));
        return std::to_string(whole != nullptr ? whole->rate * 8 : 0);
    };
    EXPECT_UNTIL("100000000", portRate());
    Namespace::run("ethtool -s t1 speed 100 duplex half");
    EXPECT_UNTIL("none, refused: the link is half duplex", shaped("t1"));
}

TEST_F(ShaperAgentTest, AbilitiesAreFoundOutAtOnceAndWhileTheLoopRuns) {
    const Linux::Abilities found = Linux::probeAbilities();
    for (const auto& [name, ability] : Linux::CapabilityStatus::abilityFields)
        EXPECT_NE(found.*ability, Linux::Ability::unknown) << name;
    EXPECT_EQ(found.htb, Linux::Ability::present);
    EXPECT_EQ(found.groups, Linux::Ability::present);
    std::optional<Linux::Abilities> again;
    Linux::AbilityProbe probe{loop, [&](const Linux::Abilities& abilities) { again = abilities; }};
    probe.start();
    EXPECT_TRUE(loop.runUntil([&] { return again.has_value(); }, 5s));
    EXPECT_EQ(again, found);
}

/// Sends frames of priorities 5 and 2 into one interface, without a pause, and counts those that come out of
/// another.
class OtherTraffic {
public:
    OtherTraffic(const std::string& in, const std::string& out) : in_{in}, out_{out} {
        const int least = 1;
        setsockopt(counter_, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
        sockaddr_ll where{};
        where.sll_family = AF_PACKET;
        where.sll_protocol = htons(0x22F0);
        where.sll_ifindex = static_cast<int>(if_nametoindex(out.c_str()));
        EXPECT_EQ(bind(counter_, reinterpret_cast<const sockaddr*>(&where), sizeof where), 0);
        thread_ = std::thread{[this] {
            Octets frame{3, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 9, 0x81, 0, 0xA0, 2, 0x22, 0xF0};
            frame.resize(500);
            const RawEnd end{in_};
            for (; !done_; ++sent_) {
                frame[14] = sent_ % 2 == 0 ? 0xA0 : 0x40;
                end.send(frame);
                if (sent_ % 20 == 0) std::this_thread::sleep_for(1ms);
            }
        }};
    }
    OtherTraffic(const OtherTraffic&) = delete;
    OtherTraffic& operator=(const OtherTraffic&) = delete;
    ~OtherTraffic() { close(counter_); }
    /// Ends it; "lost 3 of 1000".
    std::string lost() {
        done_ = true;
        thread_.join();
        std::this_thread::sleep_for(100ms);  // on their way
        tpacket_stats counted{};
        socklen_t size = sizeof counted;
        getsockopt(counter_, SOL_PACKET, PACKET_STATISTICS, &counted, &size);
        return concat("lost ", sent_ - counted.tp_packets, " of ", sent_);
    }

private:
    const std::string in_;
    const std::string out_;
    const int counter_ = socket(AF_PACKET, SOCK_RAW, 0);
    std::atomic<bool> done_ = false;
    std::uint64_t sent_ = 0;
    std::thread thread_;
};

TEST_F(ShaperAgentTest, ReservationsThatComeAndGoCostOtherTrafficNothing) {
    Namespace::ip("link add p3 numtxqueues 4 type veth peer name p4 numrxqueues 4 numtxqueues 4");
    Namespace::cable("x1", "x2");
    for (const char* up : {"p3", "p4", "x1"}) Namespace::ip(concat("link set ", up, " up"));
    for (const char* port : {"p3", "x1"}) Namespace::ip(concat("link set ", port, " master br0"));
    const Linux::Abilities abilities = Linux::probeAbilities();
    capabilities->abilitiesAre(abilities);
    const bool credits = abilities.cbs == Linux::Ability::present;
    config->shapingIs(credits ? Linux::Shaping::software : Linux::Shaping::htb);
    Life life{*this};
    domain->portIs(IntfId{"p3"})->coreIs(Cos{3}, true);
    EXPECT_UNTIL(credits ? "mqprio 0 0" : "htb 0 0", shaped("p3")) << said;
    OtherTraffic traffic{"x2", "p4"};
    for (unsigned i = 0; i < 1000; ++i) {
        reserve(i % 2 * 75'000, 500'000, "p3");
        settle(1ms);
    }
    const std::string lost = traffic.lost();
    EXPECT_TRUE(lost.starts_with("lost 0 of")) << lost;
}

}  // namespace
