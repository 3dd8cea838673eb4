#include "Plan/World.h"

#include "Plan/Tree.h"

#include <algorithm>
#include <utility>

namespace Plan {

using Bridging::Topology::PortState;
using Runtime::Duration;
using Runtime::Time;

namespace {

/// Before anything is known of it a virtual clock is not at zero; this is where all of them begin.
const Time begin = Runtime::VirtualLoop{}.now();

}  // namespace

struct World::Cell {
    Runtime::VirtualLoop loop;
    Time lastChange = begin;
    std::vector<std::pair<Wire*, std::size_t>> leaving{};  ///< wires, and the other cells to which they lead
    void changed() { lastChange = loop.now(); }
};

struct World::BridgeNode {
    std::unique_ptr<Sim::Bridge> bridge;  ///< null while switched off
    State::Reactor groups{};
};

struct World::StationNode {
    explicit StationNode(Runtime::Loop& loop) : ports{loop} {}
    bool on = true;
    Sim::Ports ports;
    Runtime::Trace trace{};
    std::shared_ptr<Interface::AllEthPhyIntfStatusDir> links =
        std::make_shared<Interface::AllEthPhyIntfStatusDir>();
    std::map<std::uint64_t, Station::TalkerEvent> talkers{};
    std::map<std::uint64_t, Station::ListenerEvent> listeners{};
    /// What it is to do whenever it is on, by number of the stream.
    std::map<std::size_t, bool> talks{};
    std::map<std::size_t, bool> listens{};
    std::unique_ptr<Station::EndStation> station{};  ///< null while switched off
};

struct World::Line {
    bool up = true;
    Interface::Speed speed{};
    std::array<bool, 2> forwards{};
    std::array<std::unique_ptr<Wire>, 2> wires{};  ///< by the end at which they begin
};

namespace {

const IntfId stationPort{"eth0"};

Station::TalkerSpec specOf(const Network& network, const Stream& stream) {
    const auto& priorities = network.devices[stream.talker].priorities;
    return {.streamId = stream.id,
            .macDa = stream.destination,
            .vlan = stream.vlan,
            .priority = priorities[stream.srClass == Msrp::SrClassId::SrClassA ? 0 : 1],
            .maxFrameSize = stream.tspec.maxFrameSize,
            .maxIntervalFrames = stream.tspec.maxIntervalFrames,
            .rank = stream.rank};
}

}  // namespace

World::World(const Network& network, const Options& options)
    : network_{network}, options_{options}, workers_{options.threads} {
    const std::size_t devices = network.devices.size();
    cellOf_.resize(devices);
    linksOf_.resize(devices);
    bridges_.resize(devices);
    stations_.resize(devices);
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        for (const LinkEnd& end : network.links[l].ends) linksOf_[end.device].push_back(l);
    }
    for (std::size_t i = 0; i < devices; ++i) {
        if (!network.devices[i].bridge) continue;
        cellOf_[i] = cells_.size();
        cells_.push_back(std::make_unique<Cell>());
        bridges_[i] = std::make_unique<BridgeNode>();
    }
    for (std::size_t i = 0; i < devices; ++i) {
        if (network.devices[i].bridge) continue;
        if (linksOf_[i].empty()) {
            cellOf_[i] = cells_.size();
            cells_.push_back(std::make_unique<Cell>());
        } else {
            const auto& ends = network.links[linksOf_[i].front()].ends;
            cellOf_[i] = cellOf_[ends[0].device == i ? ends[1].device : ends[0].device];
        }
        stations_[i] = std::make_unique<StationNode>(cellOf(i).loop);
    }
    lookahead_ = std::chrono::hours{1};
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        const Link& link = network.links[l];
        Line& line = *lines_.emplace_back(std::make_unique<Line>());
        line.speed = link.speed;
        const Wire::Quality quality{Interface::megabitsPerSecond(link.speed), link.delay, link.loss};
        for (int end = 0; end < 2; ++end) {
            const std::size_t to = link.ends[1 - end].device;
            const IntfId port = network.devices[to].bridge ? IntfId{link.ends[1 - end].port} : stationPort;
            line.wires[static_cast<std::size_t>(end)] =
                std::make_unique<Wire>(cellOf(link.ends[end].device).loop, cellOf(to).loop, quality,
                                       options.seed * 7919 + 2 * l + static_cast<std::uint64_t>(end),
                                       [this, to, port](const Sim::Pdu& pdu) {
                                           if (stations_[to]) {
                                               stations_[to]->ports.deliver(port, pdu);
                                           } else if (bridges_[to]->bridge) {
                                               bridges_[to]->bridge->ports().deliver(port, pdu);
                                           }
                                       });
            if (cellOf_[link.ends[0].device] == cellOf_[link.ends[1].device]) continue;
            Wire& wire = *line.wires[static_cast<std::size_t>(end)];
            lookahead_ = std::min(lookahead_, wire.least());
            cellOf(link.ends[end].device).leaving.emplace_back(&wire, cellOf_[to]);
        }
    }
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        stations_[network.streams[s].talker]->talks[s] = !network.streams[s].later;
        listeners_.emplace_back();
        if (network.streams[s].later) continue;
        for (const std::size_t listener : network.streams[s].listeners)
            stations_[listener]->listens[s] = true;
        listeners_.back() = network.streams[s].listeners;
    }
    for (std::size_t i = 0; i < devices; ++i) {
        if (bridges_[i]) makeBridge(i);
    }
    for (std::size_t i = 0; i < devices; ++i) {
        if (stations_[i]) makeStation(i);
    }
    for (std::size_t l = 0; l < lines_.size(); ++l) follow(l);
    treeIs();
}

World::~World() {
    // Whoever is left must not be told of the others' ends.
    for (auto& station : stations_) {
        if (station) station->station.reset();
    }
    for (auto& bridge : bridges_) bridge.reset();
}

World::Cell& World::cellOf(std::size_t device) const { return *cells_[cellOf_[device]]; }

void World::makeBridge(std::size_t device) {
    const Device& d = network_.devices[device];
    BridgeNode& node = *bridges_[device];
    Cell& cell = cellOf(device);
    node.bridge = std::make_unique<Sim::Bridge>(cell.loop, std::vector<std::string>{},
                                                options_.seed * 104'729 + device);
    Sim::Bridge& bridge = *node.bridge;
    bridge.logSinkIs([](const Runtime::LogEvent&, std::string_view, const std::string&) {});
    bridge.bridging->bridgeMacIs(d.address);
    if (!options_.loops) {
        bridge.stp->stpInstanceStatusIs(std::string{Stp::mstName})
            ->mstInstanceStatusIs(std::string{Stp::cistName})
            ->bridgePriorityIs(d.treePriority);
        bridge.stp->modeIs(Stp::Mode::Rstp);
    }
    for (const auto& [path, patch] : d.records) (void)bridge.database().entity(path)->apply(patch);
    for (const std::size_t l : linksOf_[device]) {
        for (int end = 0; end < 2; ++end) {
            if (network_.links[l].ends[end].device == device) plug(l, end);
        }
    }
    node.groups = bridge.groupConfig->watch([&cell](const State::Change&) { cell.changed(); });
    bridge.start();
}

/// The bridge's end of the link.
void World::plug(std::size_t link, int end) {
    const LinkEnd& at = network_.links[link].ends[end];
    Sim::Bridge& bridge = *bridges_[at.device]->bridge;
    const Line& line = *lines_[link];
    const IntfId port{at.port};
    bridge.database().entityIs<Interface::EthIntfStatusDir>("interface/status/eth/intf")->intfIs(port, true);
    bridge.speedIs(at.port, line.speed);
    bridge.linkIs(at.port, carries(link));
    for (const std::uint16_t vlan : at.vlans) {
        bridge.vlanIs(vlan, at.port, true);
        if (!options_.loops) bridge.topology->vlanTopologyIs(VlanId{vlan}, std::string{Stp::cistName});
    }
    bridge.config->intfEnableIs(port, true);
    bridge.ports().cableIs(port, [wire = line.wires[static_cast<std::size_t>(end)].get()](
                                     const Sim::Pdu& pdu) { wire->send(pdu); });
}

void World::makeStation(std::size_t device) {
    StationNode& node = *stations_[device];
    Cell& cell = cellOf(device);
    node.talkers.clear();
    node.listeners.clear();
    for (const std::size_t l : linksOf_[device]) {
        const int end = network_.links[l].ends[0].device == device ? 0 : 1;
        node.ports.cableIs(stationPort, [wire = lines_[l]->wires[static_cast<std::size_t>(end)].get()](
                                            const Sim::Pdu& pdu) { wire->send(pdu); });
        node.links->intfStatusIs(stationPort)
            ->linkStatusIs(carries(l) ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown);
    }
    node.station = std::make_unique<Station::EndStation>(
        stationPort, Station::EndStation::Environment{
                         .loop = cell.loop,
                         .ports = node.ports,
                         .trace = node.trace,
                         .links = node.links,
                         .seed = options_.seed * 15'485'863 + device,
                         .tell =
                             [&node, &cell](const Station::Event& event) {
                                 cell.changed();
                                 if (const auto* talker = std::get_if<Station::TalkerEvent>(&event))
                                     node.talkers.insert_or_assign(talker->streamId, *talker);
                                 if (const auto* listener = std::get_if<Station::ListenerEvent>(&event))
                                     node.listeners.insert_or_assign(listener->streamId, *listener);
                             },
                         .report = {}});
    const Device& d = network_.devices[device];
    for (const Msrp::SrClassId srClass : {Msrp::SrClassId::SrClassA, Msrp::SrClassId::SrClassB}) {
        const Station::Domain domain{.priority = d.priorities[srClass == Msrp::SrClassId::SrClassA ? 0 : 1],
                                     .vid = network_.vlan};
        node.station->domainIs(srClass, domain);
    }
    for (const auto& [stream, talks] : node.talks) {
        if (talks) node.station->talk(specOf(network_, network_.streams[stream]));
    }
    for (const auto& [stream, listens] : node.listens) {
        if (listens) node.station->listen(network_.streams[stream].id);
    }
}

bool World::carries(std::size_t link) const {
    if (!lines_[link]->up) return false;
    return std::ranges::all_of(network_.links[link].ends, [&](const LinkEnd& end) {
        return stations_[end.device] ? stations_[end.device]->on : bridges_[end.device]->bridge != nullptr;
    });
}

/// Both ends are told what the link is.
void World::follow(std::size_t link) {
    const bool up = carries(link);
    for (auto& wire : lines_[link]->wires) wire->upIs(up);
    for (const LinkEnd& end : network_.links[link].ends) {
        if (bridges_[end.device]) {
            if (Sim::Bridge* bridge = bridges_[end.device]->bridge.get()) {
                bridge->speedIs(end.port, lines_[link]->speed);
                bridge->linkIs(end.port, up);
            }
        } else {
            stations_[end.device]
                ->links->intfStatusIs(stationPort)
                ->linkStatusIs(up ? Interface::LinkStatus::linkUp : Interface::LinkStatus::linkDown);
        }
    }
}

void World::treeIs() {
    std::vector<TreeBridge> bridges(network_.devices.size());
    for (std::size_t i = 0; i < bridges.size(); ++i) {
        const Device& d = network_.devices[i];
        bridges[i].id = std::uint64_t{d.treePriority} << 48 | d.address.number();
    }
    std::vector<TreeLink> links;
    for (std::size_t l = 0; l < lines_.size(); ++l) {
        const Link& link = network_.links[l];
        TreeLink one;
        one.up = carries(l) && bridges_[link.ends[0].device] && bridges_[link.ends[1].device];
        one.cost = pathCost(Interface::megabitsPerSecond(lines_[l]->speed));
        for (int end = 0; end < 2; ++end) {
            one.bridges[end] = link.ends[end].device;
            const auto& of = linksOf_[link.ends[end].device];
            one.ports[end] = static_cast<std::uint16_t>(std::ranges::find(of, l) - of.begin() + 1);
        }
        links.push_back(one);
    }
    const auto ends = forwardingEnds(bridges, links);
    for (std::size_t l = 0; l < lines_.size(); ++l) {
        Line& line = *lines_[l];
        for (int end = 0; end < 2; ++end) {
            const LinkEnd& at = network_.links[l].ends[end];
            const bool edge = !links[l].up && carries(l);
            line.forwards[static_cast<std::size_t>(end)] =
                options_.loops ? carries(l) : edge || ends[l][static_cast<std::size_t>(end)];
            if (options_.loops || !bridges_[at.device] || !bridges_[at.device]->bridge) continue;
            bridges_[at.device]
                ->bridge->topology->topoConfigIs(std::string{Stp::cistName})
                ->topoPortConfigIs(IntfId{at.port})
                ->stateIs(line.forwards[static_cast<std::size_t>(end)] ? PortState::forwarding
                                                                       : PortState::blocking);
        }
    }
}

void World::linkIs(std::size_t link, bool up) {
    lines_[link]->up = up;
    follow(link);
    treeIs();
}

void World::speedIs(std::size_t link, Interface::Speed speed) {
    lines_[link]->speed = speed;
    for (auto& wire : lines_[link]->wires) {
        Wire::Quality quality = wire->quality();
        quality.megabitsPerSecond = Interface::megabitsPerSecond(speed);
        wire->qualityIs(quality);
    }
    lookahead_ = std::min({lookahead_, lines_[link]->wires[0]->least(), lines_[link]->wires[1]->least()});
    follow(link);
    treeIs();
}

void World::lossIs(std::size_t link, double loss) {
    for (auto& wire : lines_[link]->wires) {
        Wire::Quality quality = wire->quality();
        quality.loss = loss;
        wire->qualityIs(quality);
    }
}

void World::powerIs(std::size_t device, bool on) {
    if (StationNode* station = stations_[device].get()) {
        if (on == station->on) return;
        station->on = on;
        if (on) makeStation(device);
        endsFollow(device);
        if (!on) station->station.reset();
        return;
    }
    BridgeNode& node = *bridges_[device];
    if (on == (node.bridge != nullptr)) return;
    if (on) {
        makeBridge(device);
    } else {
        node.groups = {};
        node.bridge.reset();
    }
    endsFollow(device);
}

void World::endsFollow(std::size_t device) {
    for (const std::size_t l : linksOf_[device]) follow(l);
    treeIs();
}

void World::talkIs(std::size_t stream, bool talks) {
    const Stream& s = network_.streams[stream];
    StationNode& node = *stations_[s.talker];
    node.talks[stream] = talks;
    if (!node.station) return;
    if (talks) {
        node.station->talk(specOf(network_, s));
    } else {
        node.station->stopTalking(s.id);
    }
}

void World::listenIs(std::size_t stream, std::size_t station, bool listens) {
    StationNode& node = *stations_[station];
    node.listens[stream] = listens;
    std::erase(listeners_[stream], station);
    if (listens) listeners_[stream].push_back(station);
    if (!node.station) return;
    if (listens) {
        node.station->listen(network_.streams[stream].id);
    } else {
        node.station->stopListening(network_.streams[stream].id);
    }
}

void World::flood(std::size_t station, std::uint64_t count) {
    StationNode& node = *stations_[station];
    if (!node.station) return;
    const std::uint64_t address = network_.devices[station].address.number();
    for (std::uint64_t i = 0; i < count; ++i) {
        // Ids from the end of the talker's own, and addresses from the end of those for streams.
        node.station->talk({.streamId = address << 16 | (0xffff - i),
                            .macDa = EthAddr::fromNumber(0x91e0f000fdff - i),
                            .maxFrameSize = Msrp::maxMsdu});
    }
}

void World::mishapIs(std::size_t link, int end, unsigned nth, std::optional<Duration> late) {
    lines_[link]->wires[static_cast<std::size_t>(end)]->mishapIs(nth, late);
}

double World::clock() const { return Runtime::seconds(begin + now_); }

void World::runTo(Duration end) {
    constexpr Duration moment{1};
    constexpr Time never = Time::max();
    // When each cell has something to do next: whoever is not touched stays as it is.
    std::vector<Time> next(cells_.size());
    const auto look = [&](std::size_t cell) { next[cell] = cells_[cell]->loop.nextTime().value_or(never); };
    for (std::size_t c = 0; c < next.size(); ++c) look(c);
    std::vector<std::size_t> due;
    for (;;) {
        const Time first = next.empty() ? never : *std::ranges::min_element(next);
        if (first == never || first - begin > end) break;
        // Nothing that is sent from now on arrives elsewhere before `until`.
        const Duration until = std::min(std::max(first - begin, now_) + lookahead_, end + moment);
        due.clear();
        for (std::size_t c = 0; c < next.size(); ++c) {
            if (next[c] - begin < until) due.push_back(c);
        }
        workers_.each(due.size(), [&](std::size_t i) {
            cells_[due[i]]->loop.runTo(begin + until - moment);
            look(due[i]);
        });
        // In an order that does not depend on who was ready first.
        for (const std::size_t c : due) {
            for (const auto& [wire, to] : cells_[c]->leaving) {
                if (wire->join()) look(to);
            }
        }
        now_ = until - moment;
        ++meetings_;
        turns_ += due.size();
    }
    for (auto& cell : cells_) cell->loop.runTo(begin + end);
    now_ = end;
}

Duration World::lastChange() const {
    Time last = begin;
    for (const auto& cell : cells_) last = std::max(last, cell->lastChange);
    return last - begin;
}

bool World::runUntilQuiet(Duration quiet, Duration end) {
    while (now_ < end) {
        const Duration silent = lastChange() + quiet;
        if (silent <= now_) return true;
        runTo(std::min(silent, end));
    }
    return lastChange() + quiet <= now_;
}

Sim::Bridge* World::bridge(std::size_t device) const {
    return bridges_[device] ? bridges_[device]->bridge.get() : nullptr;
}

const Mrp::MrpSm* World::engine(std::size_t device) const {
    if (Sim::Bridge* bridge = this->bridge(device)) return bridge->agent().mrpSm();
    return stations_[device] && stations_[device]->station ? &stations_[device]->station->engine() : nullptr;
}

IntfId World::port(std::size_t link, int end) const {
    const LinkEnd& at = network_.links[link].ends[end];
    return network_.devices[at.device].bridge ? IntfId{at.port} : stationPort;
}

bool World::talks(std::size_t stream) const {
    const auto& talks = stations_[network_.streams[stream].talker]->talks;
    const auto at = talks.find(stream);
    return at != talks.end() && at->second;
}

bool World::listens(std::size_t stream, std::size_t station) const {
    const auto& listens = stations_[station]->listens;
    const auto at = listens.find(stream);
    return at != listens.end() && at->second;
}

bool World::forwards(std::size_t link, int end) const {
    return lines_[link]->forwards[static_cast<std::size_t>(end)];
}

const Station::TalkerEvent* World::heardTalker(std::size_t station, std::uint64_t stream) const {
    const auto& heard = stations_[station]->talkers;
    const auto at = heard.find(stream);
    return at == heard.end() || at->second.state == Msrp::TalkerState::None ? nullptr : &at->second;
}

const Station::ListenerEvent* World::heardListener(std::size_t station, std::uint64_t stream) const {
    const auto& heard = stations_[station]->listeners;
    const auto at = heard.find(stream);
    return at == heard.end() || !at->second.present ? nullptr : &at->second;
}

const Wire& World::wire(std::size_t link, int end) const {
    return *lines_[link]->wires[static_cast<std::size_t>(end)];
}

}  // namespace Plan
