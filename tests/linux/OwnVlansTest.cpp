#include "Linux/vlans/MembershipMessage.h"
#include "Linux/vlans/OwnedVlans.h"
#include "tests/control/TemporaryDirectory.h"
#include "tests/linux/Golden.h"

#include <fstream>
#include <sstream>

namespace {

VlanSet vlanSet(const char* text) { return *parseVlans(text); }

TEST(Membership, IsAskedForInTheKernelsWordsAStretchAtATime) {
    const golden::Recording recorded{"vlans"};
    const auto same = [&](const Linux::NetlinkMessage& message, const char* name) {
        EXPECT_EQ(golden::hex(message.bytes()), recorded.requests(name).front()) << name;
    };
    const Linux::VlanSpan one{VlanId{2}, VlanId{2}};
    const Linux::VlanSpan many{VlanId{10}, VlanId{20}};
    same(Linux::joinVlans(11, one), "vlan add tagged");
    same(Linux::joinVlans(11, many), "vlan add range");
    same(Linux::leaveVlans(11, one), "vlan del");
    same(Linux::leaveVlans(11, many), "vlan del range");

    const std::vector<Linux::VlanSpan> stretches{
        {VlanId{1}, VlanId{3}}, {VlanId{5}, VlanId{5}}, {VlanId{100}, VlanId{4094}}};
    EXPECT_EQ(Linux::spansOf(vlanSet("1-3,5,100-4094")), stretches);
    EXPECT_EQ(Linux::spansOf({}), std::vector<Linux::VlanSpan>{});
}

TEST(OwnedVlans, KnowsItsOwnOfThisNamespaceAfterAnyEnd) {
    const TemporaryDirectory directory;
    const std::string path = directory.file("vlans");
    const auto ports = [&] {
        Linux::OwnedVlans owned{path};
        EXPECT_EQ(owned.read(), "");
        return owned.ports();
    };
    const auto text = [&] {
        std::ostringstream all;
        all << std::ifstream{path}.rdbuf();
        return all.str();
    };
    const Linux::OwnedVlans::Ports both{{11, {"swp1", vlanSet("2,100-4094")}}, {12, {"swp2", vlanSet("3")}}};
    Linux::OwnedVlans owned{path};
    for (const auto& [index, port] : both) owned.portIs(index, port.name, port.vlans);
    EXPECT_EQ(owned.flush(), "");
    EXPECT_EQ(ports(), both);
    const std::string whole = text();

    // What cannot be read costs its own line, and what lies in another namespace is not ours.
    const auto spoilt = [&](const std::string& lines) {
        std::ofstream{path} << lines;
        return ports();
    };
    EXPECT_EQ(spoilt(whole + "port 13 swp3 0\nport x swp3 2\nport 13 a/b 2\nhole 13 swp3 2\nport 13\n"),
              both);
    EXPECT_EQ(spoilt("net 1\n" + whole.substr(whole.find('\n') + 1)), Linux::OwnedVlans::Ports{});
    EXPECT_EQ(spoilt(whole + "net 1\nport 13 swp3 2\n"), both);

    std::ofstream{path} << whole;
    EXPECT_EQ(owned.read(), "");
    owned.portIs(12, "swp2", {});
    EXPECT_EQ(owned.flush(), "");
    EXPECT_EQ(ports().size(), 1U);
    owned.portIs(11, "swp1", {});
    EXPECT_EQ(owned.flush(), "");
    EXPECT_FALSE(std::ifstream{path}.is_open()) << "nothing is left behind";
}

}  // namespace
