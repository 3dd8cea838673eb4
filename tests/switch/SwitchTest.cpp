#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"
#include "Switch/PortChoice.h"
#include "Switch/Qos.h"
#include "Switch/Ranged.h"
#include "Switch/TopologyAgent.h"
#include "Switch/TopologyLibrary.h"

#include <gtest/gtest.h>

namespace {

using Bridging::Topology::PortState;

/// With ports that can be chosen.
struct Chosen : State::Record<Chosen> {
    static constexpr std::string_view type = "Test::Chosen";
    template <class F>
    static constexpr void fields(F&& each) {
        each(PortChoiceField<Chosen>{"ports", &Chosen::ports});
    }
    PortChoice ports;
};

TEST(PortChoice, IsWhatIsSaidOfAPortOrElseOfAllAndTellsOnlyWhatItChanges) {
    Chosen record;
    constexpr PortChoiceField<Chosen> field{"ports", &Chosen::ports};
    std::string told;
    const auto reactor = record.react([&](const State::Change& change) {
        const auto* intf = change.key<IntfId>();
        told += intf != nullptr ? intf->name() + (record.ports.chooses(*intf) ? "+ " : "- ") : "said ";
    });
    const auto say = [&](const std::string& port, State::Value chosen) {
        EXPECT_FALSE(record.apply(State::Object{{"ports", State::Object{{port, std::move(chosen)}}}}));
        return std::exchange(told, {});
    };
    EXPECT_EQ(say("*", true), "said ");
    field.bridgePortsAre(record, {IntfId{"swp1"}, IntfId{"swp2"}});
    EXPECT_EQ(std::exchange(told, {}), "swp1+ swp2+ ");
    EXPECT_EQ(say("swp1", true), "said ");
    EXPECT_EQ(say("swp2", false), "swp2- ");
    field.bridgePortsAre(record, {IntfId{"swp2"}, IntfId{"swp3"}});
    EXPECT_EQ(std::exchange(told, {}), "swp3+ ");
    EXPECT_EQ(say("swp2", {}), "swp2+ ");
    const State::Object named{{"*", {}}, {"swp2", true}, {"swp3", true}};
    EXPECT_FALSE(record.apply(State::Object{{"ports", named}}));
    EXPECT_EQ(std::exchange(told, {}), "said ");
    EXPECT_EQ(say("swp3", {}), "swp3- ");
}

TEST(Values, AreRefusedOutsideTheirRanges) {
    EXPECT_NO_THROW(
        (VlanId{1}, VlanId{4094}, Cos{8}, TrafficClass{16}, ShapeRateVal{1}, ShapeRateVal{600'000'001}));
    EXPECT_THROW(VlanId{0}, std::range_error);
    EXPECT_THROW(VlanId{65537}, std::range_error);
    EXPECT_THROW(Cos{9}, std::range_error);
    EXPECT_THROW(TrafficClass{17}, std::range_error);
    EXPECT_THROW(ShapeRateVal{0}, std::range_error);
}

TEST(Values, NamesAndAddressesAreParsedStrictly) {
    for (const char* bad : {"", "a/b", "a b", "longer-than-15-ch", "..", "tab\t"})
        EXPECT_FALSE(IntfId::validName(bad));
    EXPECT_EQ(EthAddr::parse("91:e0:f0:00:FE:01")->text(), "91:e0:f0:00:fe:01");
    for (const char* bad :
         {"", "91:e0:f0:00:fe", "91-e0-f0-00-fe-01", "91:e0:f0:00:fe:0g", "91:e0:f0:00:fe:011"}) {
        EXPECT_FALSE(EthAddr::parse(bad)) << bad;
    }
    EXPECT_EQ(Qos::TxQueue::parse("unicast:5"), (Qos::TxQueue{5, Qos::TxQueueType::unicast}));
    EXPECT_FALSE(Qos::TxQueue::parse("unicast:17"));
}

TEST(Topology, FollowsVlansPortsAndModes) {
    const auto bridging = std::make_shared<Bridging::Config>();
    const auto stp = std::make_shared<Stp::Status>();
    const auto phy = std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    const auto topology = std::make_shared<Bridging::Topology::Config>();
    const auto status = std::make_shared<Bridging::Topology::Status>();
    const auto lib = std::make_shared<Bridging::Topology::TopoLibState>();
    const IntfId a{"topoA"};
    const IntfId b{"topoB"};
    const VlanId two{2};
    phy->intfStatusIs(a);
    const Bridging::TopologyAgent agent{bridging, stp, phy, topology};
    const Bridging::Topology::TopoLibSm sm{topology, stp, status, lib};
    ASSERT_NE(lib->topo("NoStp"), nullptr);
    EXPECT_EQ(lib->topo("NoStp")->topoPort(a)->state(), PortState::forwarding);

    std::string seen;
    const auto reactor =
        lib->watch([&](const State::Change& change) { seen += std::string{change.field} + ' '; });
    const auto of = [](const char* key, State::Value value) {
        return State::Value{State::Object{{key, std::move(value)}}};
    };
    const auto port = of("topoB", of("tagged", State::Value{true}));
    ASSERT_FALSE(bridging->apply(of("vlanConfig", of("2", of("intf", port)))).has_value());
    EXPECT_TRUE(lib->topo("NoStp")->topoPort(b)->vlanPortConfig(two)->tagged());
    EXPECT_EQ(status->topo().get("NoStp"), 2U);
    EXPECT_EQ(seen.find("tagged"), std::string::npos)
        << "a VLAN that arrives tagged is never seen untagged: " << seen;
    bridging->vlanConfigIs(two)->intfIs(b)->taggedIs(false);
    EXPECT_FALSE(lib->topo("NoStp")->topoPort(b)->vlanPortConfig(two)->tagged());
    bridging->vlanConfigIs(two)->intfDel(b);
    EXPECT_EQ(lib->topo("NoStp")->topoPort(b), nullptr);
}

}  // namespace
