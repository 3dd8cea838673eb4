#include "Linux/fence/FenceAgent.h"
#include "Runtime/Text.h"
#include "tests/ports/FaultyKernel.h"
#include "tests/ports/Namespace.h"

#include <linux/rtnetlink.h>

using namespace std::chrono_literals;
using Runtime::concat;

namespace {

/// A bridge with the ports p1 and p2; behind them are q1 and q2.
class FenceAgentTest : public PortsTest {
protected:
    /// One life of the daemon.
    struct Life {
        explicit Life(FenceAgentTest& t, Runtime::Duration settling = 0s,
                      std::uint32_t room = Linux::FenceTable::defaultRoom)
            : devices{t.loop},
              agent{t.loop,
                    devices,
                    t.kernel,
                    {t.config, t.domain, t.groups, t.vlans, t.capabilities, t.status,
                     std::make_shared<Switch::Streams>(), std::make_shared<Linux::TrafficStatus>()},
                    [this, &t] {
                        t.loop.post([this, alive = std::weak_ptr{token}] {
                            if (!alive.expired()) agent.apply();
                        });
                    },
                    [&t](auto tone, auto& line) { t.said += told(tone, line); },
                    room} {
            EXPECT_EQ(devices.start(), "");
            EXPECT_EQ(agent.start(settling), "");
        }
        std::shared_ptr<int> token = std::make_shared<int>();
        Linux::DeviceTable devices;
        Linux::FenceAgent agent;
    };

    void make() override {
        Namespace::ip("link add br0 up type bridge");
        for (const char* number : {"1", "2"}) {
            Namespace::cable(concat("p", number), concat("q", number));
            Namespace::ip(concat("link set p", number, " master br0"));
        }
        config->bridgeIs("br0");
        ASSERT_EQ(kernel.kernel.open(), "");
        from = std::make_unique<RawEnd>("q1");
        to = std::make_unique<RawEnd>("q2");
        // The kernel's own first words on a new interface are none of ours.
        settle();
    }
    void coreIs(const std::string& port, unsigned priority, bool core) const {
        domain->portIs(IntfId{port})->coreIs(Cos{priority}, core);
    }
    /// A frame to a group, with these octets behind its addresses.
    static Octets frame(const Octets& rest, const Octets& destination = {3, 0, 0, 0, 0, 1}) {
        Octets octets = destination;
        octets.insert(octets.end(), {2, 0, 0, 0, 0, 9});
        octets.insert(octets.end(), rest.begin(), rest.end());
        octets.resize(80, 0x55);
        return octets;
    }
    /// The frames that come out behind p2 when this one comes in on p1, each by what is behind its addresses.
    std::string out(const Octets& sent) {
        (void)to->heard();
        from->send(sent);
        std::string text;
        for (const Octets& heard : to->heard()) {
            if (!std::equal(heard.begin(), heard.begin() + 12, sent.begin())) continue;
            for (std::size_t i = 12; i < heard.size() && heard[i] != 0x55; ++i)
                text += concat("0123456789abcdef"[heard[i] >> 4], "0123456789abcdef"[heard[i] & 15]);
            text += ' ';
        }
        return text;
    }
    /// The priorities in which frames of each of the eight leave.
    std::string priorities() {
        std::string text;
        for (std::uint8_t tag = 0; text.size() < 8; tag += 0x20) {
            const std::string heard = out(frame({0x81, 0, tag, 2, 0x22, 0xF0}));
            text +=
                heard.empty() ? '-' : static_cast<char>('0' + std::stoi(heard.substr(4, 1), nullptr, 16) / 2);
        }
        return text;
    }
    std::string filters(const std::string& port = "p1") {
        Linux::FencePlace have;
        EXPECT_TRUE(Linux::readFence(kernel, if_nametoindex(port.c_str()), have));
        const auto rules = Linux::fenceOf(have);
        return concat(have.ingress ? "place" : "", rules ? " " + rules->name() : "");
    }
    /// As it is put on record.
    [[nodiscard]] std::string closed(const std::string& port) const {
        std::string text;
        for (const auto& [priority, set] : status->portIs(IntfId{port})->closed()) text += priority.text();
        return text;
    }

    FaultyKernel kernel;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    std::shared_ptr<Switch::Domain> domain = std::make_shared<Switch::Domain>();
    std::shared_ptr<Bridging::Input::Config> groups = std::make_shared<Bridging::Input::Config>();
    std::shared_ptr<Bridging::VlanRequests> vlans = std::make_shared<Bridging::VlanRequests>();
    std::shared_ptr<Linux::CapabilityStatus> capabilities = std::make_shared<Linux::CapabilityStatus>();
    std::shared_ptr<Linux::FenceStatus> status = std::make_shared<Linux::FenceStatus>();
    std::unique_ptr<RawEnd> from;
    std::unique_ptr<RawEnd> to;
    std::string said;
};

TEST_F(FenceAgentTest, FramesOfMvrpEndInASwitchThatSpeaksIt) {
    const Octets mvrp = frame({0x88, 0xF5}, {1, 0x80, 0xC2, 0, 0, 0x21});
    for (const Linux::Fencing fence : {Linux::Fencing::none, Linux::Fencing::ports}) {
        config->fenceIs(fence);
        Life life{*this};
        EXPECT_EQ(out(mvrp), "88f5 ") << "as any other frame to a group";
        const RawEnd here{"p1"};
        vlans->runningIs(true);
        EXPECT_UNTIL("", out(mvrp));
        EXPECT_FALSE(here.heard().empty()) << "the switch itself hears them";
        EXPECT_EQ(out(frame({0x81, 0, 0x00, 2, 0x88, 0xF5})), "8100000288f5 ");
        vlans->runningIs(false);
        EXPECT_UNTIL("88f5 ", out(mvrp));
        life.agent.stop();
        EXPECT_EQ(filters(), "");
    }
}

TEST_F(FenceAgentTest, FramesFromOutsideLoseThePriorityOfTheClassesAndNothingElse) {
    EXPECT_EQ(priorities(), "01234567");
    Life life{*this};
    EXPECT_EQ(priorities(), "01004567") << "before the loop has turned";
    EXPECT_EQ(out(frame({0x22, 0xF0})), "22f0 ") << "without a tag";
    EXPECT_EQ(out(frame({0x81, 0, 0x7A, 0xBC, 0x22, 0xF0})), "81001abc22f0 ")
        << "VLAN and drop eligible stay";
    EXPECT_EQ(out(frame({0x81, 0, 0x60, 0, 0x22, 0xF0})), "8100000022f0 ") << "a tag for the priority alone";
    EXPECT_EQ(out(frame({0x88, 0xA8, 0x60, 5, 0x81, 0, 0xA0, 7, 0x22, 0xF0})), "") << "not with two tags";
    EXPECT_EQ(out(frame({0x88, 0xA8, 0x60, 5, 0x22, 0xF0})), "88a8000522f0 ");
    EXPECT_EQ(out(frame({0x81, 0, 0xA0, 5, 0x81, 0, 0x60, 7, 0x22, 0xF0})), "8100a0058100600722f0 ");

    coreIs("p1", 3, true);
    EXPECT_UNTIL("01034567", priorities());
    domain->classPriorityIs(Cos{5});
    EXPECT_UNTIL("01034067", priorities());
    domain->classPriorityDel(Cos{5});
    domain->classPriorityDel(Cos{2});
    EXPECT_UNTIL("01234567", priorities());
    EXPECT_EQ(filters(), "place msrpd-fence:::guarded") << "an open fence tells the next life that it is one";
    coreIs("p1", 3, false);
    EXPECT_UNTIL("01204567", priorities());
    Namespace::ip("link add p3 up type veth peer name q3");
    Namespace::ip("link set p3 master br0");
    EXPECT_UNTIL("place msrpd-fence:3::guarded", filters("p3"));
    Namespace::ip("link set p3 nomaster");
    EXPECT_UNTIL("", filters("p3"));
    EXPECT_TRUE(life.agent.audit(false).empty());
    EXPECT_EQ(closed("p1") + "," + closed("p2"), "3,3");
    life.agent.stop();
    EXPECT_EQ(filters() + priorities() + said, "01234567");
}

TEST_F(FenceAgentTest, ItOutlivesACrashAndTheNextLifeLeavesOpenWhatWasOpen) {
    {
        Life life{*this};
        coreIs("p1", 3, true);
        EXPECT_UNTIL("01034567", priorities());
    }
    domain->portDelAll();
    EXPECT_EQ(priorities(), "01034567");
    const std::string fence =
        ": a filter that takes priorities from incoming frames, and its place (clsact) if there are no "
        "others\n";
    EXPECT_EQ(leftovers(kernel, loop), "p1" + fence + "p2" + fence);
    {
        Life life{*this, 300ms};
        settle(100ms);
        EXPECT_EQ(priorities(), "01034567") << "its streams go on";
        EXPECT_UNTIL("01004567", priorities());
    }
    {
        Life life{*this, 1h};
        EXPECT_EQ(priorities(), "01004567");
        coreIs("p1", 3, true);
        EXPECT_UNTIL("01034567", priorities());
        coreIs("p1", 3, false);
        EXPECT_UNTIL("01004567", priorities());
        // A place of which somebody else makes use as well, beside our filter.
        Namespace::tc(
            "filter add dev p2 ingress protocol all pref 32 handle 9 bpf da bytecode '1,6 0 0 4294967295'");
        life.agent.stop();
        EXPECT_EQ(filters("p1") + "," + filters("p2"), ",place");
    }
    EXPECT_EQ(said, "");
    { Life life{*this}; }
    EXPECT_EQ(leftovers(kernel, loop, {}, true), "p1" + fence + "p2" + fence);
    EXPECT_EQ(filters("p1") + "," + filters("p2"), ",place");
    // What was left on a port that is none of the bridge's any more is taken away, whatever the daemon is to
    // do.
    { Life life{*this}; }
    Namespace::ip("link set p1 nomaster");
    { Life life{*this}; }
    EXPECT_EQ(filters("p1"), "");
    EXPECT_NE(said.find("p1: takes back the fence"), std::string::npos) << said;
    Namespace::ip("link set p1 master br0");
    { Life life{*this}; }
    config->fenceIs(Linux::Fencing::none);
    Life life{*this};
    EXPECT_EQ(priorities(), "01234567");
}

TEST_F(FenceAgentTest, OnlyRegisteredStreamsKeepTheirPriorityWhereThatIsWanted) {
    const Octets stream{0x91, 0xE0, 0xF0, 0, 0, 1};
    const auto sent = [&](std::uint8_t vlan, const Octets& destination) {
        return out(frame({0x81, 0, 0x60, vlan, 0x22, 0xF0}, destination));
    };
    const std::string kept = "8100600222f0 ";
    const std::string lost = "8100000222f0 ";
    Namespace::bridge("mdb add dev br0 port p2 grp 91:e0:f0:00:00:01 permanent");
    const auto group = groups->fdbConfigIs(VlanId{2})->ethGroupIs(EthAddr{{0x91, 0xE0, 0xF0, 0, 0, 1}});
    groups->fdbConfigPriorityIs(100);
    group->talkerIntfIs(IntfId{"p1"});
    config->fenceIs(Linux::Fencing::streams);
    {
        Life life{*this};
        EXPECT_EQ(sent(2, stream), lost) << "the port is outside";
        coreIs("p1", 3, true);
        EXPECT_UNTIL(kept, sent(2, stream));
        EXPECT_EQ(sent(3, stream), "8100000322f0 ");
        EXPECT_EQ(sent(2, {3, 0, 0, 0, 0, 1}), lost);
        group->talkerIntfIs(IntfId{"p2"});
        EXPECT_UNTIL(lost, sent(2, stream));
        group->talkerIntfIs(IntfId{"p1"});
        EXPECT_UNTIL(kept, sent(2, stream));
        Namespace::rename("p1", "p3");
        domain->portIs(IntfId{"p3"})->coreIs(Cos{3}, true);
        EXPECT_UNTIL(lost, sent(2, stream));
        Namespace::rename("p3", "p1");
        EXPECT_UNTIL(kept, sent(2, stream));
        groups->fdbConfigDel(VlanId{2});
        EXPECT_UNTIL(lost, sent(2, stream));
    }
    // What was registered before a crash is so again after a moment; until then the port alone counts.
    Life life{*this, 1s};
    settle(100ms);
    EXPECT_EQ(sent(2, {3, 0, 0, 0, 0, 1}), kept);
    EXPECT_UNTIL(lost, sent(2, {3, 0, 0, 0, 0, 1}));
}

TEST_F(FenceAgentTest, FramesToStreamAddressesGoNowhereUnlessThereIsAGroup) {
    const auto arrives = [&](std::uint8_t fifth, std::uint8_t fourth = 0) {
        return out(frame({0x22, 0xF0}, {0x91, 0xE0, 0xF0, fourth, fifth, 1})).empty() ? "no" : "yes";
    };
    const auto mdb = [](const std::string& verb) {
        Namespace::bridge("mdb " + verb + " dev br0 port p2 grp 91:e0:f0:00:00:01 permanent");
    };
    std::optional<Life> life{std::in_place, *this};
    EXPECT_UNTIL("no", arrives(0));
    EXPECT_EQ(arrives(0xFE), std::string{"no"});
    EXPECT_EQ(arrives(0xFF), std::string{"yes"}) << "protocols that give addresses out";
    EXPECT_EQ(arrives(0, 1), std::string{"yes"}) << "other protocols";
    mdb("add");
    EXPECT_UNTIL("yes", arrives(0));
    mdb("del");
    EXPECT_UNTIL("no", arrives(0));
    mdb("add");
    life.emplace(*this);
    EXPECT_EQ(arrives(0), std::string{"yes"}) << "as it was before";
    mdb("del");
    EXPECT_UNTIL("no", arrives(0));
    // Where the bridge does not look at its groups, streams need that every frame goes everywhere.
    Namespace::ip("link set br0 type bridge mcast_snooping 0");
    EXPECT_UNTIL("yes", arrives(1));
}

TEST_F(FenceAgentTest, ATableThatTakesNoMoreKeepsNobodyOut) {
    const auto arrives = [&](std::uint8_t last) {
        return !out(frame({0x22, 0xF0}, {0x91, 0xE0, 0xF0, 0, 0, last})).empty();
    };
    for (const char* last : {"1", "2"})
        Namespace::bridge(concat("mdb add dev br0 port p2 grp 91:e0:f0:00:00:0", last, " permanent"));
    Life life{*this, 0s, 1};
    EXPECT_TRUE(arrives(1) && arrives(2) && arrives(3));
    EXPECT_EQ(priorities(), "01004567");
    EXPECT_EQ(said, "the fence does not tell streams apart: there are more than 1 streams and groups\n");
    Namespace::bridge("mdb del dev br0 port p2 grp 91:e0:f0:00:00:01 permanent");
    EXPECT_UNTIL("place msrpd-fence:23::guarded", filters());
    EXPECT_TRUE(!arrives(1) && arrives(2) && !arrives(3));
}

TEST_F(FenceAgentTest, WhatOthersTakeAwayIsPutBackButNotForEver) {
    Life life{*this};
    for (const char* what : {"filter del dev p1 ingress", "qdisc del dev p1 clsact"}) {
        Namespace::tc(what);
        EXPECT_UNTIL("place msrpd-fence:23::guarded", filters());
    }
    const std::string line =
        "p1: incoming frames from outside the classes' domain keep their priority; somebody else changed the "
        "filters\n";
    EXPECT_EQ(said, line + line);
    said.clear();
    Namespace::tc("filter del dev p1 ingress");
    const std::string problem =
        "somebody else takes its filter away again and again, it is left alone for a while";
    EXPECT_UNTIL(problem, status->portIs(IntfId{"p1"})->problem());
    EXPECT_EQ(said, "p1: frames from outside the classes' domain may use their queues: " + problem + "\n");
    settle(1200ms);
    EXPECT_EQ(filters(), "place") << "before a minute has passed";
    EXPECT_EQ(life.agent.audit(true).size(), 1U);
    EXPECT_EQ(filters(), "place msrpd-fence:23::guarded") << "but an operator can have it at once";
}

TEST_F(FenceAgentTest, WhatTheKernelRefusesIsSaidOnceAndTriedAgain) {
    kernel.refuseAll(RTM_NEWTFILTER, EINVAL);
    Life life{*this};
    settle(1200ms);
    EXPECT_EQ(kernel.refused, 4) << "two ports, twice";
    const std::string line =
        ": frames from outside the classes' domain may use their queues: cannot set up the filter: Invalid "
        "argument\n";
    EXPECT_EQ(said, "p1" + line + "p2" + line);
    kernel.refuse = nullptr;
    said.clear();
    life.agent.abilitiesChanged();
    EXPECT_UNTIL("01004567", priorities());
    EXPECT_EQ(said,
              "good: p1: frames from outside the classes' domain are kept out again\n"
              "good: p2: frames from outside the classes' domain are kept out again\n");
}

}  // namespace
