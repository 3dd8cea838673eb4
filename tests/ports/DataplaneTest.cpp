#include "Linux/Dataplane.h"
#include "tests/linux/BridgeText.h"
#include "tests/ports/Namespace.h"

#include <sys/resource.h>

namespace {

class DataplaneTest : public PortsTest {};

TEST_F(DataplaneTest, AStartThatFailsAnywhereLeavesPortsAsTheyWere) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers need descriptors of their own, and take their absence for a wild pointer";
#endif
    Namespace::ip("link add br0 up type bridge");
    Namespace::cable("p1", "p2");
    Namespace::ip("link set p1 master br0");
    Linux::DeviceTable devices{loop};
    ASSERT_EQ(devices.start(), "");
    const auto bridge = bridgeRecords();
    const auto config = std::make_shared<Linux::Config>();
    config->bridgeIs("br0");
    const auto role = [&] {
        devices.readAll();
        return unsigned{devices.find("p1")->multicastRouter};
    };
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    // One socket more can be opened each time.
    const Runtime::FileDescriptor lowest{dup(0)};
    std::string problem = "none yet";
    for (auto more = static_cast<rlim_t>(lowest.get()); !problem.empty(); ++more) {
        ASSERT_LT(more, 200U);
        Linux::Dataplane dataplane{
            loop,
            devices,
            {config, bridge.bridging, bridge.topology, bridge.stp,
             std::make_shared<Bridging::Input::Config>(), std::make_shared<Bridging::VlanRequests>(),
             std::make_shared<Qos::Input::Config>(), std::make_shared<Qos::Status>(),
             std::make_shared<Qos::HwStatus>(), std::make_shared<Switch::Domain>(),
             std::make_shared<Switch::Streams>(), std::make_shared<Linux::GroupStatus>(),
             std::make_shared<Bridging::VlanMembers>(), std::make_shared<Switch::Refusals>(),
             std::make_shared<Linux::CapabilityStatus>(), std::make_shared<Linux::FenceStatus>(),
             std::make_shared<Linux::TrafficStatus>()},
            "/nowhere/control",
            [](Linux::Tone, const std::string&) {}};
        const rlimit now{more, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &now);
        problem = dataplane.start();
        setrlimit(RLIMIT_NOFILE, &before);
        EXPECT_EQ(role(), problem.empty() ? 0U : 1U) << more << ": " << problem;
        dataplane.stop();
    }
    EXPECT_EQ(role(), 1U);
}

}  // namespace
