/// Two agents over one state database on real ports: one takes over from the other, and the stations behind
/// the ports tell what they heard of it.
#include "Linux/EpollLoop.h"
#include "Linux/PacketPorts.h"
#include "Sim/Bridge.h"
#include "Station/EndStation.h"
#include "tests/ports/Namespace.h"

using namespace std::chrono_literals;
using Msrp::ListenerState;
using Msrp::TalkerState;
using Msrp::U64;

namespace {

/// A station at the far end of a cable, and its record of what the bridge declares.
class Peer {
public:
    Peer(Runtime::Loop& loop, Mrp::PacketPortProvider& ports, IntfId intf)
        : station_{intf,
                   {.loop = loop,
                    .ports = ports,
                    .trace = trace_,
                    .links = up(intf),
                    .seed = intf.number(),
                    .tell = [this](const Station::Event& event) { heard(event); },
                    .report = {}}} {}

    [[nodiscard]] Station::EndStation& station() { return station_; }
    [[nodiscard]] const std::map<U64, TalkerState>& talkers() const { return talkers_; }
    [[nodiscard]] const std::map<U64, ListenerState>& listeners() const { return listeners_; }
    /// Declarations that ended or became worse.
    [[nodiscard]] std::size_t losses() const { return losses_; }

private:
    static std::shared_ptr<Interface::AllEthPhyIntfStatusDir> up(IntfId intf) {
        auto links = std::make_shared<Interface::AllEthPhyIntfStatusDir>();
        links->intfStatusIs(intf)->linkStatusIs(Interface::LinkStatus::linkUp);
        return links;
    }
    void heard(const Station::Event& event) {
        if (const auto* talker = std::get_if<Station::TalkerEvent>(&event)) {
            if (talker->state != TalkerState::Advertise) ++losses_;
            talkers_[talker->streamId] = talker->state;
        } else if (const auto* listener = std::get_if<Station::ListenerEvent>(&event)) {
            const ListenerState state = listener->present ? listener->state : ListenerState::Ignore;
            if (state != ListenerState::Ready) ++losses_;
            listeners_[listener->streamId] = state;
        }
    }

    Runtime::Trace trace_;
    std::map<U64, TalkerState> talkers_;
    std::map<U64, ListenerState> listeners_;
    std::size_t losses_ = 0;
    Station::EndStation station_;
};

TEST_F(PortsTest, TakeOverOfAThousandReservationsIsNotNoticedByThePeers) {
    constexpr U64 streams = 1000;
    Linux::EpollLoop loop;
    Linux::PacketPorts ports{loop};
    for (const std::string number : {"1", "2", "3"}) {
        Namespace::cable("p" + number, "q" + number);
        for (const std::string& end : {"p" + number, "q" + number})
            ports.interfaceIs(IntfId{end}, if_nametoindex(end.c_str()), EthAddr::fromNumber(0x02000000000a));
    }
    Sim::Bridge bridge{loop, {"p1", "p2", "p3"}, 1, &ports};
    for (const char* port : {"p1", "p2", "p3"}) bridge.speedIs(port, Interface::Speed::speed100Gbps);
    bridge.mrpConfig->leaveAllTimeIs(1000);
    bridge.start();
    bridge.standbyStart();
    Peer talker{loop, ports, IntfId{"q1"}};
    Peer near{loop, ports, IntfId{"q2"}};
    Peer far{loop, ports, IntfId{"q3"}};
    for (U64 id = 1; id <= streams; ++id) {
        near.station().listen(id);
        if (id % 2 == 0) far.station().listen(id);
        talker.station().talk({.streamId = id, .macDa = EthAddr::fromNumber(0x91e0f0000000 + id)});
    }
    const auto allReady = [&] {
        return talker.listeners().size() == streams &&
               std::ranges::all_of(talker.listeners(),
                                   [](const auto& l) { return l.second == ListenerState::Ready; });
    };
    ASSERT_TRUE(loop.runUntil(allReady, 10s)) << talker.listeners().size();
    ASSERT_TRUE(loop.runUntil([&] { return bridge.status->registeredStreams().size() == streams; }, 5s));
    const std::string before = bridge.streams();
    const std::size_t losses = talker.losses() + near.losses() + far.losses();

    bridge.activeStops();
    loop.runUntil([] { return false; }, 50ms);
    near.station().stopListening(1);  // nobody hears these two
    far.station().stopListening(2);
    loop.runUntil([] { return false; }, 50ms);
    bridge.standbyTakesOver();
    EXPECT_EQ(bridge.streams(), before);
    // LeaveTime after the LeaveAll with which the new agent begins.
    EXPECT_TRUE(loop.runUntil([&] { return bridge.stream(1) == "0x1 SrClassA 9088 p1 -> p1"; }, 2s))
        << bridge.stream(1);
    EXPECT_EQ(bridge.stream(2), "0x2 SrClassA 9088 p1 -> p2");
    // Further rounds of both sides.
    loop.runUntil([] { return false; }, 3s);
    EXPECT_EQ(talker.losses() + near.losses() + far.losses(), losses + 1) << "stream 1 has no listener";
    EXPECT_EQ(talker.listeners().at(1), ListenerState::Ignore);
    EXPECT_EQ(bridge.allocated("p2", Msrp::SrClassId::SrClassA), (streams - 1) * 9088);
    EXPECT_EQ(bridge.allocated("p3", Msrp::SrClassId::SrClassA), (streams / 2 - 1) * 9088);
}

}  // namespace
