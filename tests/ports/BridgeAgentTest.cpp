#include "Linux/bridge/BridgeAgent.h"
#include "tests/linux/BridgeText.h"
#include "tests/ports/Namespace.h"

#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>

namespace {

class BridgeAgentTest : public PortsTest {
protected:
    void make() override {
        config->bridgeIs("br0");
        for (const char* port : {"p1", "p2", "p3"}) Namespace::cable(port, std::string{"far"} + port);
    }
    void start(int queueBytes = Linux::DeviceTable::defaultQueueBytes) {
        ASSERT_EQ(requests.open(), "");
        ASSERT_EQ(devices.start(), "");
        ASSERT_EQ(agent.start(queueBytes), "");
    }
    static void bridge(const std::string& options = "") {
        Namespace::ip("link add br0 up address 02:00:00:00:00:01 type bridge forward_delay 200 " + options);
    }
    static void join(std::initializer_list<const char*> ports) {
        for (const std::string port : ports) Namespace::ip("link set " + port + " master br0");
    }

    Linux::DeviceTable devices{loop};
    Linux::NetlinkRequests requests;
    std::shared_ptr<Linux::Config> config = std::make_shared<Linux::Config>();
    Linux::BridgeRecords records = bridgeRecords();
    std::vector<std::string> complaints;
    Linux::BridgeAgent agent{loop,
                             devices,
                             requests,
                             config,
                             records.bridging,
                             records.topology,
                             records.stp,
                             [this](const std::string& line) { complaints.push_back(line); }};
};

#define EXPECT_RECORDS(text) EXPECT_UNTIL(text, described(records))

constexpr auto noBridge = "None; NoStp";
constexpr auto twoPorts = "None; NoStp p1 forwarding p2 forwarding; 2 p1+ p2+; native p1 1 p2 1";

TEST_F(BridgeAgentTest, TheRecordsFollowPortsTheirStatesAndTheirNames) {
    bridge();
    join({"p1", "p2"});
    start();
    EXPECT_EQ(described(records), twoPorts) << "true when start returns";
    EXPECT_EQ(records.bridging->bridgeMac().text(), "02:00:00:00:00:01");
    Namespace::ip("link set p1 type bridge_slave state 1");
    EXPECT_RECORDS("None; NoStp p1 blocking p2 forwarding; 2 p1+ p2+; native p1 1 p2 1");
    Namespace::ip("link set p1 type bridge_slave state 3");
    EXPECT_RECORDS(twoPorts);
    join({"p3"});
    EXPECT_RECORDS(
        "None; NoStp p1 forwarding p2 forwarding p3 forwarding; 2 p1+ p2+ p3+; native p1 1 p2 1 p3 1");
    Namespace::ip("link set p1 nomaster");
    Namespace::ip("link del p3");
    EXPECT_RECORDS("None; NoStp p2 forwarding; 2 p2+; native p2 1");
    Namespace::ip("link set p2 nomaster");
    EXPECT_RECORDS(noBridge);
    join({"p1", "p2"});
    EXPECT_RECORDS(twoPorts);

    // Two ports change their names, one of them loses its link on the way.
    Namespace::ip("link set farp2 down");
    for (const std::string port : {"p1", "p2"}) Namespace::ip("link set " + port + " down");
    Namespace::ip("link set p1 name p9");
    Namespace::ip("link set p2 name p1");
    Namespace::ip("link set p9 name p2");
    for (const std::string port : {"p1", "p2"}) Namespace::ip("link set " + port + " up");
    EXPECT_RECORDS("None; NoStp p1 blocking p2 forwarding; 2 p1+ p2+; native p1 1 p2 1");
    EXPECT_TRUE(complaints.empty());
}

TEST_F(BridgeAgentTest, ABridgeMayComeLateAndGoAndReturn) {
    Namespace::ip("link add br0 type veth peer name br1");
    start();
    EXPECT_EQ(described(records), noBridge);
    Namespace::ip("link del br0");
    bridge();
    join({"p1", "p2"});
    EXPECT_RECORDS(twoPorts);
    Namespace::ip("link del br0");
    EXPECT_RECORDS(noBridge);
    bridge("stp_state 1 priority 4096");
    join({"p1"});
    EXPECT_RECORDS("Rstp 4096; Cist p1 blocking; 2@Cist p1+; native p1 1");
    Namespace::ip("link set br0 type bridge stp_state 0");
    Namespace::ip("link set p1 type bridge_slave state 3");
    EXPECT_RECORDS("None; NoStp p1 forwarding; 2 p1+; native p1 1");
    Namespace::ip("link set br0 down");
    Namespace::ip("link set br0 name br9");
    EXPECT_RECORDS(noBridge);
    Namespace::ip("link set br9 name br0");
    Namespace::ip("link set br0 up");
    EXPECT_RECORDS("None; NoStp p1 forwarding; 2 p1+; native p1 1");
    EXPECT_EQ(complaints, (std::vector<std::string>{"bridge br0 is not a bridge", "bridge br0 does not exist",
                                                    "bridge br0 does not exist"}));
}

TEST_F(BridgeAgentTest, TheVlansOfABridgeThatFiltersThemAreItsOwn) {
    bridge();
    if (std::system("ip link set br0 type bridge vlan_filtering 1 2>/dev/null") != 0)
        GTEST_SKIP() << "this kernel's bridges do not filter VLANs";
    const auto vlan = [](const std::string& arguments) { Namespace::bridge("vlan " + arguments); };
    join({"p1", "p2"});
    start(1);  // room for one or two notifications
    const std::string states = "None; NoStp p1 forwarding p2 forwarding; ";
    EXPECT_EQ(described(records), states + "1 p1- p2-; native p1 1 p2 1");
    vlan("add dev p1 vid 2-3");
    vlan("add dev p2 vid 2 pvid untagged");
    vlan("add dev br0 vid 7 self");
    EXPECT_RECORDS(states + "1 p1- p2-; 2 p1+ p2-; 3 p1+; native p1 1 p2 2");
    vlan("set dev p1 vid 2 state 4");
    EXPECT_RECORDS(states + "1 p1- p2-; 2 p2-; 3 p1+; native p1 1 p2 2");
    vlan("set dev p1 vid 2 state 3");
    vlan("del dev p2 vid 1-2");
    EXPECT_RECORDS(states + "1 p1-; 2 p1+; 3 p1+; native p1 1 p2 1");
    Namespace::ip("link set br0 type bridge vlan_filtering 0");
    EXPECT_RECORDS(twoPorts);
    vlan("add dev p2 vid 5");  // while nobody looks
    Namespace::ip("link set br0 type bridge vlan_filtering 1");
    EXPECT_RECORDS(states + "1 p1-; 2 p1+; 3 p1+; 5 p2+; native p1 1 p2 1");
    Namespace::ip("link set p1 nomaster");
    join({"p1"});
    EXPECT_RECORDS(states + "1 p1-; 5 p2+; native p1 1 p2 1");
    // More than fit: VLANs that come and go one by one.
    Namespace::run("for v in $(seq 100 400); do echo vlan add dev p1 vid $v; done | bridge -b -");
    Namespace::run("for v in $(seq 100 399); do echo vlan del dev p1 vid $v; done | bridge -b -");
    EXPECT_RECORDS(states + "1 p1-; 5 p2+; 400 p1+; native p1 1 p2 1");
    EXPECT_TRUE(complaints.empty());
}

TEST_F(BridgeAgentTest, EachTreeOfTheBridgeIsATopology) {
    bridge();
    if (std::system("ip link set br0 type bridge vlan_filtering 1 vlan_default_pvid 0 2>/dev/null") != 0)
        GTEST_SKIP() << "this kernel's bridges do not filter VLANs";
    const auto ask = [&](const Linux::NetlinkMessage& message) {
        EXPECT_EQ(requests.carryOut(message).error, 0);
    };
    const auto about = [](const char* name, std::uint8_t family) {
        ifinfomsg header{};
        header.ifi_family = family;
        header.ifi_index = static_cast<int>(if_nametoindex(name));
        return header;
    };
    join({"p1", "p2"});
    start();
    const std::string ports = "Cist p1 forwarding p2 forwarding; ";
    const std::string three = "; 3@Cist p1+ p2+; native p1 1 p2 1";
    // The kernel allows an instance for each group of VLANs only while there are none.
    constexpr std::uint32_t instances = 1U << BR_BOOLOPT_MST_ENABLE;
    ask(std::move(Linux::NetlinkMessage{RTM_NEWLINK, Linux::requestAck}
                      .part(about("br0", AF_UNSPEC))
                      .nest(IFLA_LINKINFO, [](Linux::NetlinkMessage& info) {
                          info.text(IFLA_INFO_KIND, "bridge");
                          info.nest(IFLA_INFO_DATA, [](Linux::NetlinkMessage& data) {
                              data.attribute(IFLA_BR_MULTI_BOOLOPT, br_boolopt_multi{instances, instances});
                          });
                      })));
    for (const char* vlan : {"vid 2", "vid 3"}) {
        for (const char* port : {"p1", "p2"})
            Namespace::bridge(Runtime::concat("vlan add dev ", port, " ", vlan));
        Namespace::bridge(Runtime::concat("vlan add dev br0 self ", vlan));
    }
    br_vlan_msg vlans{};
    vlans.family = AF_BRIDGE;
    vlans.ifindex = if_nametoindex("br0");
    ask(std::move(Linux::NetlinkMessage{RTM_NEWVLAN, Linux::requestAck}.part(vlans).nest(
        BRIDGE_VLANDB_GLOBAL_OPTIONS | NLA_F_NESTED, [](Linux::NetlinkMessage& options) {
            options.attribute(BRIDGE_VLANDB_GOPTS_ID, std::uint16_t{2});
            options.attribute(BRIDGE_VLANDB_GOPTS_MSTI, std::uint16_t{5});
        })));
    EXPECT_RECORDS("Mstp 32768; " + ports + "Mst5 p1 blocking p2 blocking; 2@Mst5 p1+ p2+" + three);
    ask(std::move(Linux::NetlinkMessage{RTM_SETLINK, Linux::requestAck}
                      .part(about("p2", AF_BRIDGE))
                      .nest(IFLA_AF_SPEC | NLA_F_NESTED, [](Linux::NetlinkMessage& bridging) {
                          bridging.nest(IFLA_BRIDGE_MST | NLA_F_NESTED, [](Linux::NetlinkMessage& states) {
                              states.nest(IFLA_BRIDGE_MST_ENTRY | NLA_F_NESTED,
                                          [](Linux::NetlinkMessage& state) {
                                              state.attribute(IFLA_BRIDGE_MST_ENTRY_MSTI, std::uint16_t{5});
                                              state.attribute(IFLA_BRIDGE_MST_ENTRY_STATE, std::uint8_t{3});
                                          });
                          });
                      })));
    EXPECT_RECORDS("Mstp 32768; " + ports + "Mst5 p1 blocking p2 forwarding; 2@Mst5 p1+ p2+" + three);
}

}  // namespace
