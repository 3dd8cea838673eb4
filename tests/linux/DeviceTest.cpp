#include "Linux/links/Device.h"
#include "Linux/links/Ethtool.h"
#include "Runtime/Text.h"
#include "tests/linux/Golden.h"

#include <linux/rtnetlink.h>

namespace {

using golden::Recording;
using Linux::decodeLink;

const Recording& links() {
    static const Recording recording{"links"};
    return recording;
}

/// "p1 up bridge 10 forwarding", "port p1 bridge 0 disabled", "gone p1", "-" for a message about something
/// else.
std::string described(const nlmsghdr& message) {
    static constexpr std::array states{"disabled", "listening", "learning", "forwarding", "blocking"};
    const auto link = decodeLink(message);
    if (!link) return "-";
    const auto& device = link->device;
    std::string text = link->gone ? "gone " : link->portOnly ? "port " : "";
    text += device.name;
    if (!link->portOnly && !link->gone) text += device.operational ? " up" : " down";
    if (!link->gone && (device.bridge != 0 || link->portOnly)) {
        text += " bridge " + std::to_string(device.bridge) + ' ' +
                states.at(static_cast<std::size_t>(device.portState));
    }
    return text;
}
std::string described(const std::vector<golden::Bytes>& messages) {
    std::string text;
    for (const auto& message : messages) text += described(golden::header(message)) + '\n';
    return text;
}

TEST(Device, IsReadFromTheDumpsOfAllKernels) {
    for (const std::string kernel : {"6.18", "6.12", "6.1"}) {
        for (const auto& message : links().dump(kernel + " one link")) {
            EXPECT_EQ(described(golden::header(message)), "p1 up bridge 10 forwarding");
            const auto link = decodeLink(golden::header(message));
            ASSERT_TRUE(link);
            EXPECT_EQ(link->device.ifindex, 11U);
            EXPECT_EQ(link->device.mac, EthAddr::fromNumber(0x02000000000b));
            EXPECT_EQ(link->device.mtu, 1500U);
            EXPECT_FALSE(link->device.bridgeSettings || link->device.inSwitchChip);
            auto chip = message;  // a switch identifier of four octets behind the rest
            for (const int octet : {8, 0, int{IFLA_PHYS_SWITCH_ID}, 0, 1, 2, 3, 4})
                chip.push_back(static_cast<std::byte>(octet));
            reinterpret_cast<nlmsghdr*>(chip.data())->nlmsg_len += 8;
            EXPECT_TRUE(decodeLink(golden::header(chip))->device.inSwitchChip);
        }
    }
}

TEST(Device, KnowsTheSettingsOfABridge) {
    const auto dump = links().dump("6.18 link dump");
    std::string all;
    for (const auto& message : dump) {
        golden::cutAnywhere(message, [](const nlmsghdr& cut) { (void)decodeLink(cut); });
        const auto link = decodeLink(golden::header(message));
        if (!link || !link->device.bridgeSettings) continue;
        const auto& bridge = *link->device.bridgeSettings;
        EXPECT_FALSE(bridge.spanningTree || bridge.vlanFiltering || bridge.multipleSpanningTrees);
        all += Runtime::concat(link->device.name, ' ', bridge.mac, ' ', bridge.priority, ' ',
                               bridge.multicastSnooping, ' ', bridge.multicastTableSize, ' ',
                               bridge.groupForwardingMask);
    }
    EXPECT_EQ(all, "br0 02:00:00:00:00:0a 32768 true 4096 0") << described(dump);
}

TEST(Device, IsFollowedThroughTheNotificationsOfAllKernels) {
    for (const std::string kernel : {"6.18 ", "6.12 ", "6.1 "}) {
        const auto last = [&](const std::string& name) {
            const auto messages = links().notifications(kernel + name);
            return described(golden::header(messages.back()));
        };
        EXPECT_EQ(last("port state listening"), "port p1 bridge 10 listening") << kernel;
        EXPECT_EQ(last("port state forwarding"), "port p1 bridge 10 forwarding") << kernel;
        const std::string left = described(links().notifications(kernel + "port leaves the bridge"));
        EXPECT_NE(left.find("port p3 bridge 0 disabled"), std::string::npos) << left;
        const std::string joined = described(links().notifications(kernel + "port joins the bridge"));
        EXPECT_NE(joined.find("port p3 bridge 10 "), std::string::npos) << joined;
        const std::string deleted = described(links().notifications(kernel + "port deleted"));
        EXPECT_NE(deleted.find("gone "), std::string::npos) << deleted;
        const auto speed = links().notifications(kernel + "speed changed on a tap");
        EXPECT_EQ(Linux::EthtoolFamily::changedDevice(golden::header(speed.front())), 2U);
    }
}

}  // namespace
