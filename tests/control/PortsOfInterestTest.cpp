#include "programs/PortsOfInterest.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>

namespace {

TEST(PortsOfInterest, AreEnabledPortsAndVlanMembersForAsLongAsSomebodyNamesThem) {
    const auto msrp = std::make_shared<Msrp::Config>();
    const auto mvrp = std::make_shared<Mvrp::Config>();
    const auto bridging = std::make_shared<Bridging::Config>();
    msrp->intfEnableIs(IntfId{"swp1"}, true);
    bridging->vlanConfigIs(VlanId{2})->intfIs(IntfId{"swp2"});
    mvrp->intfEnableIs(IntfId{"swp9"}, false);
    std::string told;
    const PortsOfInterest ports{msrp, mvrp, bridging, [&](IntfId intf) { told += '+' + intf.name() + ' '; },
                                [&](IntfId intf) { told += '-' + intf.name() + ' '; }};
    EXPECT_EQ(std::exchange(told, {}), "+swp1 +swp2 +swp9 ");

    bridging->vlanConfigIs(VlanId{2})->intfIs(IntfId{"swp1"});
    msrp->intfEnableIs(IntfId{"swp1"}, false);
    EXPECT_EQ(told, "");
    bridging->vlanConfigIs(VlanId{3})->intfIs(IntfId{"swp3"});
    msrp->intfEnableDel(IntfId{"swp1"});
    bridging->vlanConfigDel(VlanId{2});
    EXPECT_EQ(told, "+swp3 -swp1 -swp2 ");
}

}  // namespace
