/// A simulated switch whose records are shown as msrpctl shows them.
#pragma once

#include "Linux/records/Config.h"
#include "Runtime/VirtualLoop.h"
#include "Show/Views.h"
#include "Sim/Peer.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// Ports are told in the order in which their names were first used: here, before any test.
inline const bool portsAreInOrder = [] {
    for (int number = 1; number <= 10; ++number) static_cast<void>(IntfId{"swp" + std::to_string(number)});
    return true;
}();

/// The records of a simulated switch, and beside them those of the kernel's side of it.
struct ShownBridge {
    explicit ShownBridge(const std::vector<std::string>& ports) : bridge{loop, ports} {
        // Peers that do not repeat themselves are enough then.
        bridge.mrpConfig->leaveAllTimeIs(600'000);
        for (const std::string& port : ports) {
            peers[port] = std::make_unique<Sim::Peer>(bridge, port);
            record<Interface::EthIntfStatusDir>("interface/status/eth/intf")->intfIs(IntfId{port}, true);
        }
    }
    /// In a tree, with a slow port swp3, swp5 without a link, swp6 blocked and swp8 not in the bridge.
    void startWithFaults() {
        using Bridging::Topology::PortState;
        bridge.stp->modeIs(Stp::Mode::Rstp);
        bridge.topology->vlanTopologyIs(VlanId{2}, "Cist");
        record<Linux::Config>("linux/config")->bridgeIs("br0");
        for (const auto& [port, peer] : peers) {
            if (port != "swp8") bridge.bridging->switchIntfConfigIs(IntfId{port});
            bridge.topology->topoConfigIs("Cist")
                ->topoPortConfigIs(IntfId{port})
                ->stateIs(port == "swp6" ? PortState::blocking : PortState::forwarding);
        }
        bridge.linkIs("swp5", false);
        bridge.speedIs("swp3", Interface::Speed::speed10Mbps);
        bridge.start();
        loop.runFor(std::chrono::seconds{1});
    }
    void says(const std::string& port, const std::vector<Sim::Say>& what) {
        for (const Sim::Say& say : what) peers.at(port)->say(say);
        loop.runFor(std::chrono::milliseconds{500});
    }
    /// As msrpctl reads it.
    Show::Snapshot snapshot(const Show::View& view) {
        Show::Snapshot s;
        s.now = Runtime::seconds(loop.now());
        for (const std::string& path : view.records) {
            if (const auto record = bridge.database().entity(path)) s.records[path] = record->value();
        }
        return s;
    }
    /// The records of those paths, or what they name in the protocol engine's; what is not there is left out.
    Show::Snapshot snapshot(const std::vector<std::string>& records,
                            const std::function<std::vector<std::string>(const Show::Snapshot&)>& more) {
        Show::Snapshot s;
        s.now = Runtime::seconds(loop.now());
        const auto add = [&](const std::string& path) {
            const auto [record, below] = bridge.database().resolve(path);
            if (!record) return;
            auto [field, rest] = State::splitPath(below);
            if (below.empty()) s.records[path] = record->value();
            const auto [port, attribute] = State::splitPath(rest);
            if (const auto child = below.empty() ? nullptr : record->child(field, port)) {
                if (const auto value = child->fieldValue("attribute", State::splitPath(attribute).second))
                    s.records[path] = *value;
            }
        };
        for (const std::string& path : records) add(path);
        for (const std::string& path : more(s)) add(path);
        return s;
    }
    std::string text(const Show::View& view, const Show::Page& page = {}) {
        return view.text(snapshot(view), page);
    }
    State::Value value(const Show::View& view) { return view.value(snapshot(view)); }
    template <class R>
    std::shared_ptr<R> record(const char* path) {
        return bridge.database().entityIs<R>(path);
    }

    Runtime::VirtualLoop loop;
    Sim::Bridge bridge;
    std::map<std::string, std::unique_ptr<Sim::Peer>> peers;
};
