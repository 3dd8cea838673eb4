#include "Linux/doctor/Capabilities.h"
#include "Linux/links/LinkAgent.h"
#include "Linux/ports/PacketPorts.h"
#include "tests/ports/Namespace.h"

#include <map>

using namespace std::chrono_literals;

namespace {

const Octets ours{0x01, 0x80, 0xc2, 0, 0, 0x0e, 0x02, 0, 0, 0, 0, 0x0b, 0x22, 0xea};

/// A frame of 60 octets: `header`, and behind it `mark` and zeros.
Octets frame(Octets header, std::uint8_t mark) {
    header.push_back(mark);
    header.resize(60);
    return header;
}
/// `frame` with a tag between the addresses and the EtherType.
Octets tagged(Octets frame, std::uint16_t tagType, std::uint16_t vlan) {
    const Octets tag{static_cast<std::uint8_t>(tagType >> 8), static_cast<std::uint8_t>(tagType),
                     static_cast<std::uint8_t>(vlan >> 8), static_cast<std::uint8_t>(vlan)};
    frame.insert(frame.begin() + 12, tag.begin(), tag.end());
    return frame;
}

class PacketPortsTest : public PortsTest {
protected:
    void make() override {
        ASSERT_EQ(Linux::packetSocketProblem(), "");
        ASSERT_EQ(devices.start(), "");
        links.followIs(a);
        links.followIs(b);
    }
    /// A port whose received first octets gather in `to`.
    std::unique_ptr<Mrp::PacketPort> open(IntfId intf, Octets& to) {
        return ports.open(intf, [&to](std::span<const std::uint8_t> pdu) { to.push_back(pdu[0]); });
    }
    bool until(const std::function<bool()>& condition) { return loop.runUntil(condition, 5s); }
    /// Runs until both interfaces, as they are now, have their links up.
    bool untilUp() {
        const auto up = [&](IntfId intf) {
            return places[intf] == if_nametoindex(intf.name().c_str()) &&
                   status->intfStatus(intf)->linkStatus() == Interface::LinkStatus::linkUp;
        };
        return until([&] { return up(a) && up(b); });
    }

    const IntfId a{"p1"};
    const IntfId b{"p2"};
    std::vector<std::string> complaints;
    std::map<IntfId, unsigned> places;
    Linux::PacketPorts ports{loop, {}, [this](const std::string& line) { complaints.push_back(line); }};
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    Linux::DeviceTable devices{loop};
    Linux::LinkAgent links{devices, status, nullptr, [this](IntfId intf, const Linux::Place& place) {
                               places[intf] = place.ifindex;
                               ports.interfaceIs(intf, place);
                           }};
    Octets atA;
    Octets atB;
};

TEST_F(PacketPortsTest, AnMrpduIsPaddedCarriesTheInterfacesPresentAddressAndMayHaveWhatTheMtuLeavesIt) {
    Namespace::cable("p1", "p2");
    ASSERT_TRUE(untilUp());
    const auto port = open(b, atB);
    const RawEnd wire{"p1"};
    EXPECT_TRUE(port->send(Octets{9}));
    Namespace::ip("link set p2 address 02:00:00:00:00:77");
    ASSERT_TRUE(
        until([&] { return status->intfStatus(b)->macAddr() == EthAddr::fromNumber(0x020000000077); }));
    EXPECT_TRUE(port->send(Octets(46, 9)));

    Octets full = ours;
    full[11] = 0x77;
    full.resize(60, 9);
    auto heard = wire.heard();
    std::erase_if(heard, [](const Octets& f) { return f[12] != 0x22; });  // the kernel's own chatter
    EXPECT_EQ(heard, (std::vector{frame(ours, 9), full}));

    EXPECT_EQ(port->capacity(), 1500U);
    Namespace::ip("link set p2 mtu 90");
    EXPECT_TRUE(until([&] { return port->capacity() == 90; }));
    EXPECT_TRUE(port->send(Octets(90, 9)));
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(port->send(Octets(106, 9)));
    EXPECT_EQ(ports.counters(b).sendDropped, 2U);
    EXPECT_EQ(complaints, std::vector<std::string>{
                              "p2: an MRPDU of 106 octets is lost, the MTU is 90 and it cannot be divided"});
}

TEST_F(PacketPortsTest, OnlyUntaggedFramesOfTheProtocolReachThePortAndATapSeesThemAsTheyAreOnTheWire) {
    Namespace::cable("p1", "p2");
    Namespace::ip("link set p1 mtu 2000");
    Namespace::ip("link set p2 mtu 2000");
    const auto port = open(a, atA);
    ASSERT_TRUE(untilUp());
    const RawEnd peer{"p2"};
    std::vector<std::pair<Linux::Direction, Octets>> seen;
    ports.tapIs([&](IntfId intf, Linux::Direction direction, std::span<const std::uint8_t> octets) {
        EXPECT_EQ(intf, a);
        EXPECT_TRUE(atA.empty()) << "before the receiver";
        seen.emplace_back(direction, Octets{octets.begin(), octets.end()});
    });
    EXPECT_TRUE(port->send(Octets{9}));
    Octets tooLong = frame(ours, 1);
    tooLong.resize(1600);
    for (const auto& [at, octet] : {std::pair{13, 0xeb}, std::pair{5, 0x0d}, std::pair{0, 0x03}}) {
        Octets other = frame(ours, 2);  // another EtherType, group or address
        other[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(octet);
        peer.send(other);
    }
    peer.send(tagged(frame(ours, 5), 0x8100, 2));
    peer.send(tagged(frame(ours, 6), 0x8100, 0x6000));  // VLAN 0, a mere priority
    peer.send(tagged(frame(ours, 7), 0x88a8, 2));
    peer.send(tooLong);
    peer.send(frame(ours, 8));
    EXPECT_TRUE(until([&] { return !atA.empty(); }));
    EXPECT_EQ(atA, Octets{8});
    Octets sent = frame(ours, 9);
    sent[11] = 0x0a;
    EXPECT_EQ(seen, (std::vector{std::pair{Linux::Direction::sent, sent},
                                 std::pair{Linux::Direction::received, frame(ours, 8)}}));
    ports.tapIs({});
    EXPECT_TRUE(port->send(Octets{9}));
    EXPECT_EQ(seen.size(), 2U);
    EXPECT_EQ(ports.counters(a).received, 1U);
    EXPECT_EQ(ports.counters(a).receiveDropped, 1U);  // the long one; the rest was none of our business
}

TEST_F(PacketPortsTest, APortWorksAgainWhenItsInterfaceComesBack) {
    const auto portA = open(a, atA);
    const auto portB = open(b, atB);
    EXPECT_FALSE(portA->send(Octets{1}));
    EXPECT_EQ(ports.counters(a).sendDropped, 1U);
    for (std::uint8_t round = 1; round <= 3; ++round) {
        Namespace::cable("p1", "p2");
        ASSERT_TRUE(untilUp());
        EXPECT_TRUE(portA->send(Octets{round}));
        EXPECT_TRUE(portB->send(Octets(1500, round)));
        EXPECT_TRUE(until([&] { return atA.size() == round && atB.size() == round; })) << int{round};
        Namespace::ip("link set p1 down");
        EXPECT_FALSE(portA->send(Octets{99}));
        Namespace::ip("link del p1");
        EXPECT_FALSE(portA->send(Octets{99}));
        // Once the loop learns of it only when the interface is back.
        if (round == 2) continue;
        ASSERT_TRUE(
            until([&] { return status->intfStatus(a)->linkStatus() == Interface::LinkStatus::linkDown; }));
    }
    EXPECT_EQ(atA, (Octets{1, 2, 3}));  // and nobody hears his own
    EXPECT_EQ(ports.counters(a).sent, 3U);
    EXPECT_EQ(ports.counters(b).received, 3U);
    EXPECT_EQ(complaints, std::vector<std::string>{});
}

TEST_F(PacketPortsTest, AnotherInterfaceWithTheSameNameAndIndexIsNoticed) {
    Linux::EpollLoop ownLoop;  // without a link agent that would tell of the time between
    Linux::PacketPorts ownPorts{ownLoop};
    Namespace::cable("p1", "p2");
    const unsigned index = if_nametoindex("p2");
    const EthAddr mac = EthAddr::fromNumber(0x02000000000b);
    const auto port = ownPorts.open(b, [&](std::span<const std::uint8_t> pdu) { atB.push_back(pdu[0]); });
    ownPorts.interfaceIs(b, {index, mac});
    Namespace::ip("link del p1");
    Namespace::ip("link add p2 up index " + std::to_string(index) + " type veth peer name p1");
    Namespace::ip("link set p1 up");
    ownPorts.interfaceIs(b, {index, mac});
    RawEnd{"p1"}.send(frame(ours, 1));
    EXPECT_TRUE(ownLoop.runUntil([&] { return atB == Octets{1}; }, 5s));
}

TEST_F(PacketPortsTest, AReceiverMayEndItsOwnPortAndAnotherTakesItsPlace) {
    Namespace::cable("p1", "p2");
    ASSERT_TRUE(untilUp());
    const RawEnd peer{"p2"};
    std::string told;
    std::unique_ptr<Mrp::PacketPort> port;
    port = ports.open(a, [&, text = std::string(100, 'x')](auto) {
        port.reset();
        told += text;
    });
    peer.send(frame(ours, 1));
    peer.send(frame(ours, 2));
    EXPECT_TRUE(until([&] { return !told.empty(); }));
    EXPECT_EQ(told, std::string(100, 'x'));
    port = open(a, atA);
    peer.send(frame(ours, 3));
    EXPECT_TRUE(until([&] { return atA == Octets{3}; }));
}

}  // namespace
