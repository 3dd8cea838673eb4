#include "Linux/links/LinkAgent.h"
#include "Runtime/Text.h"
#include "tests/ports/Namespace.h"

using Interface::Speed;

namespace {

class LinkAgentTest : public PortsTest {
protected:
    /// "p1 up 10G 02:00:00:00:00:0a"
    [[nodiscard]] std::string record(IntfId intf) const {
        const auto r = status->intfStatus(intf);
        if (!r) return "none";
        return Runtime::concat(intf, ' ', State::enumText(r->linkStatus()), ' ',
                               State::enumText(r->speedEnum()), ' ', r->macAddr());
    }

    const IntfId a{"p1"};
    const IntfId c{"p3"};
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    std::shared_ptr<Interface::EthIntfStatusDir> names = std::make_shared<Interface::EthIntfStatusDir>();
    unsigned place = 0;
    Linux::DeviceTable devices{loop};
    Linux::LinkAgent agent{devices, status, names, [this](IntfId intf, const Linux::Place& now) {
                               if (intf == a) place = now.ifindex;
                           }};
};

#define EXPECT_RECORD(intf, text) EXPECT_UNTIL(text, record(intf))

TEST_F(LinkAgentTest, TheRecordFollowsLinkAddressAndExistence) {
    Namespace::cable("p1", "p2");
    ASSERT_EQ(devices.start(), "");
    agent.followIs(a);
    EXPECT_RECORD(a, "p1 up 10G 02:00:00:00:00:0a");
    EXPECT_EQ(place, if_nametoindex("p1"));
    EXPECT_TRUE(names->intf().contains(a));

    Namespace::ip("link set p2 down");  // the peer's carrier, not our own switch
    EXPECT_RECORD(a, "p1 down unknown 02:00:00:00:00:0a");
    Namespace::ip("link set p1 address 02:00:00:00:00:11");
    Namespace::ip("link set p2 up");
    EXPECT_RECORD(a, "p1 up 10G 02:00:00:00:00:11");
    Namespace::ip("link del p1");
    EXPECT_RECORD(a, "p1 down unknown 02:00:00:00:00:11");
    EXPECT_EQ(place, 0U);
    EXPECT_FALSE(names->intf().contains(a));

    agent.followDel(a);
    EXPECT_EQ(record(a), "none");
}

TEST_F(LinkAgentTest, AnInterfaceThatComesLaterOrUnderANewNameIsFound) {
    ASSERT_EQ(devices.start(), "");
    agent.followIs(a);
    agent.followIs(c);
    EXPECT_EQ(record(a), "p1 down unknown 00:00:00:00:00:00");
    std::string atUp;
    const auto reactor = status->intfStatus(a)->react([&](const State::Change& change) {
        if (change.field == "linkStatus" && place != 0 && atUp.empty()) atUp = record(a);
    });
    Namespace::cable("p1", "p2");
    EXPECT_RECORD(a, "p1 up 10G 02:00:00:00:00:0a");
    EXPECT_EQ(atUp, record(a)) << "complete when the link goes up";
    Namespace::rename("p1", "p3");
    EXPECT_RECORD(c, "p3 up 10G 02:00:00:00:00:0a");
    EXPECT_EQ(record(a), "p1 down unknown 02:00:00:00:00:0a");
    EXPECT_EQ(place, 0U);
}

TEST_F(LinkAgentTest, TheConfiguredSpeedWins) {
    Namespace::cable("p1", "p2");
    agent.configuredSpeedIs(a, Speed::speed100Mbps);
    ASSERT_EQ(devices.start(), "");
    agent.followIs(a);
    EXPECT_RECORD(a, "p1 up 100M 02:00:00:00:00:0a");
    agent.configuredSpeedIs(a, Speed::speedUnknown);
    EXPECT_EQ(record(a), "p1 up 10G 02:00:00:00:00:0a");
    // A record that goes and comes back is as if it had never been.
    agent.followDel(a);
    agent.configuredSpeedIs(a, Speed::speed1Gbps);
    EXPECT_EQ(record(a), "none");
    agent.followIs(a);
    EXPECT_EQ(record(a), "p1 up 1G 02:00:00:00:00:0a");
}

TEST_F(LinkAgentTest, LostNotificationsAreMadeGoodByReadingAnew) {
    Namespace::cable("p1", "p2");
    ASSERT_EQ(devices.start(1), "");  // the kernel's least: room for one or two
    agent.followIs(a);
    int downs = 0;
    const auto reactor = status->intfStatus(a)->react([&](const State::Change& change) {
        if (change.field == "linkStatus") ++downs;
    });
    EXPECT_RECORD(a, "p1 up 10G 02:00:00:00:00:0a");
    downs = 0;
    for (int i = 0; i < 10; ++i) {
        Namespace::ip("link set p1 down");
        Namespace::ip("link set p1 up");
    }
    Namespace::ip("link del p1");
    Namespace::cable("p7", "p1");
    EXPECT_RECORD(a, "p1 up 10G 02:00:00:00:00:0b");
    EXPECT_EQ(place, if_nametoindex("p1"));
    EXPECT_EQ(downs, 2) << "the new device's link is another link than the old one's; the rest is history";
}

TEST(LinkSpeed, IsNamedByWhatTheLinkCanKeep) {
    EXPECT_EQ(Interface::namedSpeed(9), Speed::speedUnknown);
    EXPECT_EQ(Interface::namedSpeed(56'000), Speed::speed50Gbps);
    EXPECT_EQ(Interface::namedSpeed(800'000), Speed::speed400Gbps);
}

}  // namespace
