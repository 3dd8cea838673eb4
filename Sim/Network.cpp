#include "Sim/Network.h"

#include "Runtime/Text.h"
#include "Sim/Invariants.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Sim {

namespace {

using Bridging::Topology::PortState;
using Runtime::concat;

template <class... Parts>
[[noreturn]] void wrong(const Parts&... parts) {
    throw std::invalid_argument{concat(parts...)};
}

/// The number of a bridge's name; 0 for a station's.
unsigned bridgeNumber(const std::string& name) {
    if (!name.starts_with("sw")) return 0;
    unsigned number = 0;
    const char* end = name.data() + name.size();
    const auto [at, error] = std::from_chars(name.data() + 2, end, number);
    if (error != std::errc{} || at != end || number == 0 || number > 255)
        wrong('"', name, "\" starts like a bridge, but is none of sw1 to sw255");
    return number;
}

}  // namespace

Network::Network(std::initializer_list<std::string_view> lines) {
    for (const std::string_view line : lines) {
        try {
            draw(line);
        } catch (const std::invalid_argument& error) {
            wrong("network \"", line, "\": ", error.what());
        }
    }
    for (auto& [name, node] : nodes_) {
        if (node.number != 0) make(name, node);
    }
    std::uint64_t seed = 1000;
    for (auto& [name, node] : nodes_) {
        if (node.number != 0) continue;
        const std::string& bridge = onlyCable(name)->other(name);
        node.station = std::make_unique<MrpPeer>(loop, (*this)[bridge], name, ++seed);
        for (const Say& domain : domains()) node.station->declare(domain);
    }
    loop.runFor(std::chrono::seconds{1});
}

void Network::draw(std::string_view line) {
    std::istringstream words{std::string{line}};
    std::string from;
    std::string to;
    std::string dash;
    const auto name = [&](std::string& into, const char* where) {
        if (!(words >> into)) wrong("a name is missing ", where);
        if (into == "-" || into == "=") wrong("a name is missing before \"", into, '"');
        if (!IntfId::validName(into)) wrong('"', into, "\" is no name of 1 to 15 characters without '/'");
    };
    for (name(from, "at the beginning"); words >> dash; from = to) {
        if (dash != "-" && dash != "=") wrong("\"-\" or \"=\" is missing before \"", dash, '"');
        name(to, "at the end");
        connect(from, to, dash == "-" ? Interface::Speed::speed1Gbps : Interface::Speed::speed100Mbps);
    }
    if (to.empty()) wrong('"', from, "\" has no cable");
}

void Network::connect(const std::string& a, const std::string& b, Interface::Speed speed) {
    if (a == b) wrong('"', a, "\" has a cable to itself");
    for (const std::string& end : {a, b}) {
        const unsigned number = bridgeNumber(end);
        if (number == 0 && bridgeNumber(end == a ? b : a) == 0)
            wrong('"', a, "\" and \"", b, "\" are stations both");
        const bool known = !nodes_.try_emplace(end, Node{number, nullptr, nullptr}).second;
        if (known && number == 0) wrong("station \"", end, "\" has a second cable");
    }
    for (const Cable& c : cables_) {
        if (c.at(a) && c.at(b)) wrong("a second cable between \"", a, "\" and \"", b, '"');
    }
    cables_.push_back({a, b, speed});
}

Network::Node& Network::node(const std::string& name, bool bridge) {
    const auto at = nodes_.find(name);
    if (at == nodes_.end() || (at->second.number != 0) != bridge)
        wrong("no ", bridge ? "bridge" : "station", " \"", name, "\" in this network");
    return at->second;
}

Network::Cable& Network::cable(const std::string& a, const std::string& b) {
    for (Cable& c : cables_) {
        if (c.at(a) && c.at(b)) return c;
    }
    wrong("no cable between \"", a, "\" and \"", b, "\" in this network");
}

std::list<Network::Cable>::iterator Network::onlyCable(const std::string& station) {
    return std::ranges::find_if(cables_, [&](const Cable& c) { return c.at(station); });
}

void Network::make(const std::string& name, Node& node) {
    node.bridge = std::make_unique<Bridge>(loop, std::vector<std::string>{}, node.number);
    Bridge& bridge = *node.bridge;
    bridge.bridging->bridgeMacIs(EthAddr::fromNumber(0x02'00'00'00'00'00 + node.number));
    bridge.stp->modeIs(Stp::Mode::Rstp);
    bridge.topology->vlanTopologyIs(VlanId{2}, std::string{Stp::cistName});
    for (const Cable& c : cables_) {
        if (c.at(name)) plugIn(name, bridge, c);
    }
    bridge.start();
}

void Network::plugIn(const std::string& name, Bridge& bridge, const Cable& cable) {
    const std::string& port = cable.other(name);
    bridge.portIs(port);
    bridge.speedIs(port, cable.speed);
    bridge.linkIs(port, cable.plugged);
    portStateIs(name, port, PortState::forwarding);
    const Node& far = nodes_.at(port);
    if (far.station) return far.station->moveTo(bridge, port);
    bridge.ports().cableIs(IntfId{port}, [&far, &cable, end = IntfId{name}](const Pdu& pdu) {
        if (cable.plugged && far.bridge) far.bridge->ports().deliver(end, pdu);
    });
}

void Network::cableIs(const std::string& a, const std::string& b, bool plugged) {
    Cable& which = cable(a, b);
    which.plugged = plugged;
    for (const std::string& end : {a, b}) {
        const Node& device = nodes_.at(end);
        if (device.bridge) device.bridge->linkIs(which.other(end), plugged);
        if (device.station) device.station->linkIs(plugged);
    }
}

void Network::speedIs(const std::string& a, const std::string& b, Interface::Speed speed) {
    Cable& which = cable(a, b);
    which.speed = speed;
    for (const std::string& end : {a, b}) {
        if (nodes_.at(end).bridge) nodes_.at(end).bridge->speedIs(which.other(end), speed);
    }
}

void Network::move(const std::string& station, const std::string& bridge) {
    node(station, false);
    Bridge& to = (*this)[bridge];
    const auto at = onlyCable(station);
    cableIs(at->a, at->b, false);
    const Cable moved{station, bridge, at->speed};
    cables_.erase(at);
    plugIn(bridge, to, cables_.emplace_back(moved));
    nodes_.at(station).station->linkIs(true);
}

void Network::portStateIs(const std::string& bridge, const std::string& port, PortState state) {
    (void)cable(bridge, port);
    (*this)[bridge]
        .topology->topoConfigIs(std::string{Stp::cistName})
        ->topoPortConfigIs(IntfId{port})
        ->stateIs(state);
}

void Network::restart(const std::string& bridge, Runtime::Duration dark) {
    Node& restarted = node(bridge, true);
    std::vector<std::string> neighbours;
    for (const Cable& c : cables_) {
        if (c.at(bridge) && c.plugged) neighbours.push_back(c.other(bridge));
    }
    const bool seen = dark != Runtime::Duration{};
    loop.settle();  // nothing is on its way to the bridge any more
    restarted.bridge.reset();
    if (seen) {
        for (const std::string& neighbour : neighbours) cableIs(neighbour, bridge, false);
        loop.runFor(dark);
    }
    make(bridge, restarted);
    if (!seen) return;
    for (const std::string& neighbour : neighbours) cableIs(neighbour, bridge, true);
}

std::string Network::picture() const {
    std::string out;
    std::string line;
    const auto add = [&line](const std::string& name, const std::string& what) {
        line += concat(line.empty() ? name + ": " : ", ", what);
    };
    const auto end = [&] {
        if (!line.empty()) out += std::exchange(line, {}) + '\n';
    };
    for (const auto& [name, node] : nodes_) {
        if (!node.bridge) continue;
        std::istringstream streams{node.bridge->streams()};
        for (std::string stream; std::getline(streams, stream);) add(name, stream);
        if (const std::string fault = forwardingFault(*node.bridge); !fault.empty()) add(name, fault);
        end();
    }
    for (const auto& [name, node] : nodes_) {
        if (!node.station) continue;
        for (const auto& [key, what] : node.station->registered()) {
            if (key.first != Msrp::typeDomain) add(name, what);
        }
        end();
    }
    return out;
}

}  // namespace Sim
