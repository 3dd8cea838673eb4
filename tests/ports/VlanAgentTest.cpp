#include "Linux/vlans/VlanAgent.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/linux/BridgeText.h"
#include "tests/ports/Namespace.h"

#include <filesystem>
#include <optional>

namespace {

/// A bridge with ports p1 and p2, both in VLAN 1 only, and what is asked for.
class VlanAgentTest : public PortsTest {
protected:
    void make() override {
        config->bridgeIs("br0");
        Namespace::ip("link add br0 up address 02:00:00:00:00:01 type bridge");
        if (std::system("ip link set br0 type bridge vlan_filtering 1 2>/dev/null") != 0)
            GTEST_SKIP() << "this kernel's bridges do not filter VLANs";
        for (const std::string port : {"p1", "p2"}) {
            Namespace::cable(port, "far" + port);
            Namespace::ip("link set " + port + " master br0");
        }
        ASSERT_EQ(requests.open(), "");
        ASSERT_EQ(devices.start(), "");
        ASSERT_EQ(bridge.start(), "");
    }
    void begin(Runtime::Duration settling = std::chrono::seconds{20}) {
        agent.emplace(
            loop, devices, requests, bridge, wanted, members,
            [this](Linux::Tone, const std::string& line) { lines += line + '\n'; },
            directory.file("control"));
        agent->start(settling);
    }
    void want(const char* port, const char* vlans) {
        wanted->portIs(IntfId{port})->memberIs(*parseVlans(vlans));
    }
    /// "p1 1,2 (2) p2 1 ()": what ports carry by the records, and what of it was given.
    [[nodiscard]] std::string carried() const {
        std::string out;
        for (const char* port : {"p1", "p2"}) {
            VlanSet all;
            records.bridging->vlanConfig().each([&](VlanId id, const Bridging::VlanConfig& vlan) {
                if (vlan.intf(IntfId{port})) all.set(id.value());
            });
            const auto given = std::as_const(*members).port(IntfId{port});
            out += std::string{port} + ' ' + vlanText(all) + " (" +
                   (given ? vlanText(given->member()) : "?") + ") ";
        }
        return out;
    }

    const TemporaryDirectory directory;
    Linux::DeviceTable devices{loop};
    Linux::NetlinkRequests requests;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    Linux::BridgeRecords records = bridgeRecords();
    Linux::BridgeAgent bridge{loop,       devices, requests, config, records.bridging, records.topology,
                              records.stp};
    std::shared_ptr<Bridging::VlanRequests> wanted = std::make_shared<Bridging::VlanRequests>();
    std::shared_ptr<Bridging::VlanMembers> members = std::make_shared<Bridging::VlanMembers>();
    std::string lines;
    std::optional<Linux::VlanAgent> agent;
};

#define EXPECT_CARRIED(text) EXPECT_UNTIL(text, carried())

TEST_F(VlanAgentTest, PortsGetWhatIsAskedForAndTheAdministratorKeepsHisOwn) {
    Namespace::bridge("vlan add dev p2 vid 5");
    begin();
    want("p1", "2,100-4094");
    want("p2", "2,5");
    EXPECT_CARRIED("p1 1,2,100-4094 (2,100-4094) p2 1,2,5 (2) ");
    VlanSet even;
    for (unsigned id = 2; id < 4094; id += 2) even.set(id);
    want("p1", vlanText(even).c_str());
    EXPECT_CARRIED("p1 1," + vlanText(even) + " (" + vlanText(even) + ") p2 1,2,5 (2) ");
    want("p1", "2");
    want("p2", "");
    EXPECT_CARRIED("p1 1,2 (2) p2 1,5 () ");
    Namespace::bridge("vlan del dev p1 vid 2");
    EXPECT_CARRIED("p1 1,2 (2) p2 1,5 () ");  // it is still asked for
    Namespace::ip("link set p1 nomaster");
    EXPECT_UNTIL("gone", (std::as_const(*members).port(IntfId{"p1"}) ? "" : "gone"));
    Namespace::ip("link set p1 master br0");
    EXPECT_CARRIED("p1 1,2 (2) p2 1,5 () ");
    agent->stop();
    EXPECT_CARRIED("p1 1 (2) p2 1,5 () ");
    EXPECT_TRUE(std::filesystem::is_empty(directory.file("")));
    EXPECT_EQ(lines, "");
}

TEST_F(VlanAgentTest, AnEarlierLifesAreKeptUntilTheyHadTheirTimeAndOthersStay) {
    begin();
    want("p1", "2,3");
    Namespace::bridge("vlan add dev p1 vid 4");
    EXPECT_CARRIED("p1 1-4 (2,3) p2 1 () ");
    agent.reset();  // without a word, as who is killed
    wanted->portDel(IntfId{"p1"});
    begin(std::chrono::milliseconds{300});
    EXPECT_EQ(carried(), "p1 1-4 (2,3) p2 1 () ");
    want("p1", "3");
    EXPECT_CARRIED("p1 1,3,4 (3) p2 1 () ");
    EXPECT_EQ(agent->audit(false), std::vector<std::string>{});
    // What the administrator gives to ports of a bridge that is made anew is his.
    Namespace::ip("link del br0");
    EXPECT_UNTIL("gone", (std::as_const(*members).port(IntfId{"p1"}) ? "" : "gone"));
    Namespace::ip("link add br0 up type bridge vlan_filtering 1");
    Namespace::ip("link set p1 master br0");
    Namespace::bridge("vlan add dev p1 vid 3");
    agent.reset();
    begin();
    EXPECT_CARRIED("p1 1,3 () p2  (?) ");
}

TEST_F(VlanAgentTest, WhoeverTakesAVlanAwayAgainAndAgainIsLetBe) {
    begin();
    want("p1", "2");
    for (int i = 0; i < 3; ++i) {
        EXPECT_CARRIED("p1 1,2 (2) p2 1 () ");
        Namespace::bridge("vlan del dev p1 vid 2");
        settle();
    }
    EXPECT_CARRIED("p1 1 () p2 1 () ");
    EXPECT_EQ(lines, "p1: somebody else takes VLAN 2 away again and again; it is left alone for a minute\n");
    EXPECT_EQ(agent->audit(true), std::vector<std::string>{"p1: not in VLAN 2"});
    EXPECT_CARRIED("p1 1,2 (2) p2 1 () ");
}

TEST_F(VlanAgentTest, OnlyLearntAddressesOfTheVlanOnThePortAreForgotten) {
    begin();
    want("p1", "2,3");
    want("p2", "2");
    EXPECT_CARRIED("p1 1-3 (2,3) p2 1,2 (2) ");
    Namespace::ip("link set br0 type bridge ageing_time 30000");
    for (const char* entry : {"21 dev p1 master dynamic vlan 2", "22 dev p1 master static vlan 2",
                              "31 dev p1 master dynamic vlan 3", "23 dev p2 master dynamic vlan 2"})
        Namespace::bridge(std::string{"fdb add 02:00:00:00:00:"} + entry);
    wanted->portIs(IntfId{"p1"})->flushInc(VlanId{2});
    settle();
    Namespace::run(
        "test \"$(bridge fdb show br br0 | grep -Eo '00:00:[23][0-9] ' | sort | tr -d '\\n')\" = '00:00:22 "
        "00:00:23 00:00:31 '");
    EXPECT_EQ(lines, "");
}

TEST_F(VlanAgentTest, WhatCannotBeDoneIsSaidOnce) {
    begin();
    Namespace::ip("link set br0 type bridge vlan_filtering 0");
    want("p1", "2");
    EXPECT_UNTIL("the bridge does not filter VLANs", std::as_const(*members).port(IntfId{"p1"})->problem());
    Namespace::ip("link set br0 type bridge vlan_filtering 1");
    EXPECT_UNTIL("", std::as_const(*members).port(IntfId{"p1"})->problem());
    EXPECT_CARRIED("p1 1,2 (2) p2 1 () ");
}

}  // namespace
