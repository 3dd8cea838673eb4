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
        // Also with so little work in each turn that one event meets what is left of another.
        static constexpr unsigned units[] = {0, 300, 20};
        bridge.unitsPerTurn = units[seed % 3];
        bridge.start();
        bridge.standbyStart();
        for (const auto& peer : peers) declareDomains(*peer);
    }

    /// With `talkOnly` nothing but talkers and listeners changes.
    void step(bool talkOnly = false) {
        unsigned total = 0;
        for (const Kind& each : kinds().first(talkOnly ? 4 : kinds().size())) total += each.weight;
        std::size_t chosen = pick(total);
        const Kind* kind = kinds().data();
        for (; chosen >= kind->weight; ++kind) chosen -= kind->weight;
        port_ = pick(ports.size());
        stream_ = 1 + pick(streams);
        last_ = kind->name;
        kind->act(*this);
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
            cableIs(port_, true);
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
    void cableIs(std::size_t port, bool up) {
        bridge.linkIs(ports[port], up);
        peers[port]->linkIs(up);
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
    using Me = RandomLife;
    struct Kind {
        unsigned weight;
        const char* name;
        bool offline;  ///< may also happen while neither agent acts
        void (*act)(Me&);
    };
    static std::span<const Kind> kinds() {
        static constexpr Kind all[] = {
            {28, "talk", false, [](Me& l) { l.talk(); }},
            {14, "stop talking", false, [](Me& l) { l.stopTalking(); }},
            {24, "listen", false,
             [](Me& l) { l.peer().declare(listener(l.stream_, Msrp::ListenerState(1 + l.pick(3)))); }},
            {10, "stop listening", false, [](Me& l) { l.stopListening(); }},
            {1, "pull cable", true, [](Me& l) { l.cableIs(l.port_, false); }},
            {2, "plug cable", true, [](Me& l) { l.cableIs(l.port_, true); }},
            {1, "silence peer", false, [](Me& l) { l.peer().linkIs(false); }},
            {1, "change speed", true, [](Me& l) { l.bridge.speedIs(l.port(), speeds[1 + l.pick(2)]); }},
            {1, "replace interface", true, [](Me& l) { l.replaceInterface(); }},
            {1, "leave VLAN", true, [](Me& l) { l.bridge.vlanDel(2, l.port()); }},
            {2, "join VLAN", true, [](Me& l) { l.bridge.vlanIs(2, l.port(), !l.oneIn(4)); }},
            {1, "change share", true, [](Me& l) { l.cli().srClassABandwidthPercentIs(l.octet(80)); }},
            {1, "switch class A", true, [](Me& l) { l.cli().srClassASupportedIs(!l.oneIn(5)); }},
            {1, "switch class B", true, [](Me& l) { l.cli().srClassBSupportedIs(!l.oneIn(3)); }},
            {2, "enable port", true, [](Me& l) { l.bridge.config->intfEnableIs(l.intf(), !l.oneIn(4)); }},
            {1, "remove port", true, [](Me& l) { l.bridge.config->intfEnableDel(l.intf()); }},
            {1, "change priority", true, [](Me& l) { l.cli().srClassAPriorityIs(l.oneIn(3) ? 4 : 3); }},
            {2, "declare domain", false, [](Me& l) { l.declareDomain(); }},
            {1, "end domain", false, [](Me& l) { l.peer().withdraw(domain(Msrp::SrClassId::SrClassB, 2)); }},
            {1, "change factor", true, [](Me& l) { l.cli().shapeRateFactorIs(1.0 + l.octet(3)); }},
            {1, "shape", true, [](Me& l) { l.cli().shapingDisabledIs(l.oneIn(3)); }},
            {1, "change native", true, [](Me& l) { l.changeNative(); }},
            {1, "change frame limit", false,
             [](Me& l) { l.cli().maxFrameSizeLimitIs(l.oneIn(4) ? 500 : 1500); }},
            {1, "change PVID", false, [](Me& l) { l.cli().srPvidIs(l.intf(), l.oneIn(2) ? 3 : 2); }},
            {1, "change mode", true, [](Me& l) { l.changeMode(); }},
            {2, "change tree", true, [](Me& l) { l.blockedIs(topologies[l.pick(4)], l.port(), l.oneIn(3)); }},
            {1, "change role", false, [](Me& l) { l.changeRole(); }},
            {1, "wait long", false, [](Me& l) { l.loop.runFor(std::chrono::seconds{l.pick(6)}); }},
        };
        return all;
    }
    static constexpr const char* topologies[] = {"Cist", "Mst1", "Vl2", "Vl1"};
    static constexpr Interface::Speed speeds[] = {
        Interface::Speed::speedUnknown, Interface::Speed::speed100Mbps, Interface::Speed::speed1Gbps};

    std::size_t pick(std::size_t bound) { return random_() % bound; }
    std::uint8_t octet(std::size_t bound) { return static_cast<std::uint8_t>(pick(bound)); }
    bool oneIn(std::size_t n) { return pick(n) == 0; }
    Msrp::CliConfig& cli() { return *bridge.cliConfig; }
    [[nodiscard]] const std::string& port() const { return ports[port_]; }
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
        // The other kind of declaration goes with a Leave or, as it is replaced, without.
        const auto ends = [this](const Say& other) {
            oneIn(2) ? peer().withdraw(other) : peer().forget(other);
        };
        if (oneIn(5)) {
            ends(advertise(talker()));
            peer().declare(failed(talker(), static_cast<std::uint8_t>(1 + pick(20))));
        } else {
            ends(failed(talker(), 0));
            peer().declare(advertise(talker()));
        }
    }
    void stopTalking() {
        peer().withdraw(advertise(talker()));
        peer().withdraw(failed(talker(), 0));
    }
    void stopListening() { peer().withdraw(listener(stream_, Msrp::ListenerState::Ready)); }
    void declareDomain() {
        if (!oneIn(3)) return declareDomains(peer());
        peer().declare(domain(Msrp::SrClassId::SrClassA, static_cast<std::uint8_t>(3 + pick(2))));
    }

    /// The interface's record goes, and most times it comes back with another speed or none.
    void replaceInterface() {
        bridge.phy->intfStatusDel(intf());
        if (oneIn(4)) return;
        const bool linkFirst = oneIn(2);
        if (linkFirst) bridge.linkIs(port(), true);
        bridge.speedIs(port(), speeds[pick(3)]);
        if (!linkFirst) bridge.linkIs(port(), true);
    }

    /// The ports' native VLAN comes and goes, and with it their base topology where each VLAN has a tree.
    void changeNative() {
        if (oneIn(2)) return bridge.bridging->vlanConfigDel(VlanId{1});
        for (const std::string& port : ports) bridge.vlanIs(1, port, false);
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
        const std::size_t which = pick(6);
        if (which < 3) vlanTopologyIs(topologies[which]);
        bridge.stp->modeIs(which < 3 ? modes[which] : Stp::Mode::None);
    }

    /// The other agent takes over, and at times the first one again in the same turn.
    void changeRole() {
        for (int changes = oneIn(3) ? 2 : 1; changes > 0; --changes) {
            bridge.activeStops();
            if (oneIn(2)) loop.runFor(std::chrono::milliseconds{pick(300)});
            for (std::size_t i = pick(8); i > 0; --i) {
                port_ = pick(ports.size());
                const Kind& kind = kinds()[pick(kinds().size())];
                if (kind.offline) kind.act(*this);
            }
            bridge.standbyTakesOver();
        }
        loop.runFor({});  // to the end of it, which may take several turns
    }

    std::mt19937_64 random_;
    std::string last_;
    std::size_t port_ = 0;      ///< of the step under way
    std::uint64_t stream_ = 1;  ///< of the step under way
};

}  // namespace Sim
