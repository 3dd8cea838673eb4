/// A bridge with 4 ports and 200 streams on which talkers, listeners, links, speeds, VLANs, spanning trees,
/// configuration and roles come and go in an order that a seed decides.
#pragma once

#include "Runtime/VirtualLoop.h"
#include "Sim/MrpPeer.h"

#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace Sim {

class RandomLife {
public:
    static constexpr std::uint64_t streams = 200;

    explicit RandomLife(std::uint64_t seed) : random_{seed} {
        for (const std::string& port : ports) {
            peers.push_back(std::make_unique<MrpPeer>(loop, bridge, port, seed++));
            for (const char* topology : {"Cist", "Mst1", "Vl1", "Vl2"}) blockedIs(topology, port, false);
            bridge.vlanIs(1, port, false);
        }
        bridge.topology->vlanTopologyIs(VlanId{1}, "Vl1");
        vlanTopologyIs("Cist");
        bridge.cliConfig->srClassBBandwidthPercentIs(20);
        bridge.mrpConfig->leaveAllTimeIs(3000);
        bridge.start();
        bridge.standbyStart();
        for (const auto& peer : peers) declareDomains(*peer);
    }

    /// With `talkOnly` nothing but talkers and listeners changes.
    void step(bool talkOnly = false) {
        struct Kind {
            unsigned weight;
            const char* name;
            void (RandomLife::*act)();
        };
        using Me = RandomLife;
        static constexpr Kind kinds[] = {
            {28, "talk", &Me::talk},
            {14, "stopTalking", &Me::stopTalking},
            {24, "listen", &Me::listen},
            {10, "stopListening", &Me::stopListening},
            {1, "pullCable", &Me::pullCable},
            {2, "plugCable", &Me::plugCable},
            {1, "silencePeer", &Me::silencePeer},
            {1, "changeSpeed", &Me::changeSpeed},
            {1, "leaveVlan", &Me::leaveVlan},
            {2, "joinVlan", &Me::joinVlan},
            {1, "changeShare", &Me::changeShare},
            {2, "switchClass", &Me::switchClass},
            {3, "enablePort", &Me::enablePort},
            {1, "changePriority", &Me::changePriority},
            {2, "declareDomain", &Me::declareDomain},
            {1, "endDomain", &Me::endDomain},
            {1, "changeFactor", &Me::changeFactor},
            {1, "shape", &Me::shape},
            {1, "changeNative", &Me::changeNative},
            {1, "changeFrameLimit", &Me::changeFrameLimit},
            {1, "changePvid", &Me::changePvid},
            {1, "changeMode", &Me::changeMode},
            {2, "changeTree", &Me::changeTree},
            {1, "changeRole", &Me::changeRole},
            {1, "waitLong", &Me::waitLong},
        };
        constexpr std::size_t talkers = 4;
        unsigned total = 0;
        for (const Kind& kind : std::span{kinds}.first(talkOnly ? talkers : std::size(kinds)))
            total += kind.weight;
        std::size_t chosen = pick(total);
        const Kind* kind = kinds;
        for (; chosen >= kind->weight; ++kind) chosen -= kind->weight;
        port_ = pick(ports.size());
        stream_ = 1 + pick(streams);
        last_ = kind->name;
        (this->*kind->act)();
        if (pick(3) == 0) loop.runFor(std::chrono::milliseconds{pick(400)});
    }

    /// The last step, in words.
    [[nodiscard]] std::string last() const {
        return last_ + ' ' + ports[port_] + " stream " + std::to_string(stream_);
    }

    /// Everything as it was at the start, but for the talkers and listeners.
    void restore() {
        bridge.stp->modeIs(Stp::Mode::None);
        vlanTopologyIs("Cist");
        for (port_ = 0; port_ < ports.size(); ++port_) {
            bridge.config->intfEnableIs(intf(), true);
            bridge.vlanIs(2, ports[port_], true);
            bridge.speedIs(ports[port_], Interface::Speed::speed1Gbps);
            bridge.cliConfig->srPvidIs(intf(), 2);
            plugCable();
            declareDomains(peer());
        }
        bridge.cliConfig->srClassASupportedIs(true);
        bridge.cliConfig->srClassBSupportedIs(true);
        // Too little for all of them.
        bridge.cliConfig->srClassABandwidthPercentIs(static_cast<std::uint8_t>(5 + pick(30)));
        bridge.cliConfig->srClassAPriorityIs(3);
        bridge.cliConfig->maxFrameSizeLimitIs(1500);
        bridge.cliConfig->shapingDisabledIs(false);
    }
    void withdrawAll() {
        for (port_ = 0; port_ < ports.size(); ++port_) {
            for (stream_ = 1; stream_ <= streams; ++stream_) {
                stopTalking();
                stopListening();
            }
        }
    }
    /// Several LeaveAll rounds of every port and of every peer.
    void quiet() { loop.runFor(std::chrono::seconds{20}); }

    Runtime::VirtualLoop loop;
    const std::vector<std::string> ports{"p1", "p2", "p3", "p4"};
    Bridge bridge{loop, ports};
    std::vector<std::unique_ptr<MrpPeer>> peers;

private:
    std::size_t pick(std::size_t bound) { return random_() % bound; }
    bool oneIn(std::size_t n) { return pick(n) == 0; }
    MrpPeer& peer() { return *peers[port_]; }
    [[nodiscard]] IntfId intf() const { return IntfId{ports[port_]}; }

    // Peers
    static void declareDomains(MrpPeer& peer) {
        for (const Say& say : domains()) peer.declare(say);
    }
    /// Every stream has one description, from which a talker strays at times.  Some share an address, some
    /// are of class B.
    Talker talker() {
        Talker t{.id = stream_,
                 .macDa = 0x91e0f0000000 + (stream_ % 10 == 0 ? 1 : stream_),
                 .maxFrameSize = static_cast<std::uint16_t>(100 + 40 * (stream_ % 30)),
                 .frames = static_cast<std::uint16_t>(1 + stream_ % 3),
                 .priority = static_cast<std::uint8_t>(stream_ % 4 == 0 ? 2 : 3)};
        const std::size_t stray = pick(40);
        if (stray == 0) t.macDa = 0x91e0f0000000 + 1 + pick(streams);
        if (stray == 1) t.vlan = static_cast<std::uint16_t>(1 + pick(3));
        if (stray == 2) t.latency = 1000;
        if (stray == 3) t.rank = 0;
        if (stray == 4) t.priority = static_cast<std::uint8_t>(pick(5));
        return t;
    }
    void talk() {
        if (oneIn(5)) {
            peer().withdraw(advertise(talker()));
            peer().declare(failed(talker(), static_cast<std::uint8_t>(1 + pick(20))));
        } else {
            peer().withdraw(failed(talker(), 0));
            peer().declare(advertise(talker()));
        }
    }
    void stopTalking() {
        peer().withdraw(advertise(talker()));
        peer().withdraw(failed(talker(), 0));
    }
    void listen() { peer().declare(listener(stream_, static_cast<Msrp::ListenerState>(1 + pick(3)))); }
    void stopListening() { peer().withdraw(listener(stream_, Msrp::ListenerState::Ready)); }
    void declareDomain() {
        if (oneIn(3)) {
            peer().declare(domain(Msrp::SrClassId::SrClassA, static_cast<std::uint8_t>(3 + pick(2))));
        } else {
            declareDomains(peer());
        }
    }
    void endDomain() { peer().withdraw(domain(Msrp::SrClassId::SrClassB, 2)); }

    // Cables
    void cableIs(bool up) {
        bridge.linkIs(ports[port_], up);
        peer().linkIs(up);
    }
    void pullCable() { cableIs(false); }
    void plugCable() { cableIs(true); }
    /// The peer falls silent with the link up.
    void silencePeer() { peer().linkIs(false); }
    void changeSpeed() {
        bridge.speedIs(ports[port_],
                       oneIn(2) ? Interface::Speed::speed100Mbps : Interface::Speed::speed1Gbps);
    }

    // The operator
    void leaveVlan() { bridge.vlanDel(2, ports[port_]); }
    void joinVlan() { bridge.vlanIs(2, ports[port_], !oneIn(4)); }
    void changeShare() { bridge.cliConfig->srClassABandwidthPercentIs(static_cast<std::uint8_t>(pick(80))); }
    void switchClass() {
        if (oneIn(2)) {
            bridge.cliConfig->srClassBSupportedIs(!oneIn(3));
        } else {
            bridge.cliConfig->srClassASupportedIs(!oneIn(5));
        }
    }
    void enablePort() {
        if (oneIn(4)) {
            bridge.config->intfEnableDel(intf());
        } else {
            bridge.config->intfEnableIs(intf(), !oneIn(4));
        }
    }
    void changePriority() {
        bridge.cliConfig->srClassAPriorityIs(static_cast<std::uint8_t>(oneIn(3) ? 4 : 3));
    }
    void changeFactor() { bridge.cliConfig->shapeRateFactorIs(1.0 + static_cast<double>(pick(3))); }
    void changeFrameLimit() { bridge.cliConfig->maxFrameSizeLimitIs(oneIn(4) ? 500 : 1500); }
    void changePvid() { bridge.cliConfig->srPvidIs(intf(), static_cast<std::uint16_t>(2 + pick(2))); }

    void shape() { bridge.cliConfig->shapingDisabledIs(oneIn(3)); }
    /// The ports' native VLAN comes and goes, and with it their base topology where each VLAN has a tree.
    void changeNative() {
        if (oneIn(2)) {
            bridge.bridging->vlanConfigDel(VlanId{1});
        } else {
            for (const std::string& port : ports) bridge.vlanIs(1, port, false);
        }
    }

    // The spanning tree
    void blockedIs(const char* topology, const std::string& port, bool blocked) {
        using Bridging::Topology::PortState;
        bridge.topology->topoConfigIs(topology)
            ->topoPortConfigIs(IntfId{port})
            ->stateIs(blocked ? PortState::blocking : PortState::forwarding);
    }
    void vlanTopologyIs(const char* topology) { bridge.topology->vlanTopologyIs(VlanId{2}, topology); }
    void changeMode() {
        static constexpr Stp::Mode modes[] = {Stp::Mode::Rstp, Stp::Mode::Mstp, Stp::Mode::Pvst};
        static constexpr const char* topologies[] = {"Cist", "Mst1", "Vl2"};
        const std::size_t which = pick(6);
        if (which < 3) vlanTopologyIs(topologies[which]);
        bridge.stp->modeIs(which < 3 ? modes[which] : Stp::Mode::None);
    }
    void changeTree() {
        static constexpr const char* topologies[] = {"Cist", "Mst1", "Vl1", "Vl2"};
        blockedIs(topologies[pick(4)], ports[port_], oneIn(3));
    }

    /// The other agent takes over.
    void changeRole() {
        bridge.activeStops();
        if (oneIn(2)) loop.runFor(std::chrono::milliseconds{pick(300)});
        // What is configured while nobody acts.
        using Me = RandomLife;
        static constexpr void (Me::*operations[])() = {
            &Me::leaveVlan,   &Me::joinVlan,       &Me::changeSpeed, &Me::switchClass,  &Me::enablePort,
            &Me::changeShare, &Me::changePriority, &Me::changeMode,  &Me::changeTree,   &Me::pullCable,
            &Me::plugCable,   &Me::changeFactor,   &Me::shape,       &Me::changeNative,
        };
        for (std::size_t i = pick(4); i > 0; --i) {
            port_ = pick(ports.size());
            (this->*operations[pick(std::size(operations))])();
        }
        bridge.standbyTakesOver();
    }

    void waitLong() { loop.runFor(std::chrono::seconds{pick(6)}); }

    std::mt19937_64 random_;
    std::string last_;
    std::size_t port_ = 0;      ///< of the step under way
    std::uint64_t stream_ = 1;  ///< of the step under way
};

}  // namespace Sim
