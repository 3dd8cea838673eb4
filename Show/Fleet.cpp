#include "Show/Fleet.h"

#include "Runtime/Text.h"
#include "Show/BridgeNames.h"
#include "Show/FailureCodes.h"
#include "Show/Neighbourhood.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Show/Views.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace Show {

using Msrp::U64;
using Runtime::concat;
using State::Value;

namespace {

/// People read no more of who holds the bandwidth.
constexpr std::size_t mostHolders = 5;

bool asks(const StreamPortReport& port) { return !port.listener.empty() && port.listener != "Ignore"; }

U64 codeAt(const StreamReport& stream, const std::string& port) {
    return numberOf(at(stream.record, {"talkerFailureCode", port}));
}

class Fleet {
public:
    explicit Fleet(const std::vector<FleetBridge>& bridges) : bridges_{bridges} {
        std::vector<HeardPort> heard;
        std::vector<std::string> names;
        std::string hosts;
        for (std::size_t b = 0; b < bridges.size(); ++b) {
            const Snapshot& records = bridges[b].records;
            if (const auto own = EthAddr::parse(textOf(at(records.record("bridging/config"), {"bridgeMac"}))))
                hosts += own->text() + ' ' + bridges[b].name + '\n';
            for (const auto& [port, phy] :
                 membersOf(at(records.record("interface/status/eth/phy/all"), {"intfStatus"}))) {
                const auto address = [](const Value& value) {
                    return EthAddr::parse(textOf(value)).value_or(EthAddr{});
                };
                heard.push_back({b, address(at(phy, {"macAddr"})),
                                 address(at(records.record("linux/packets"), {"intf", port, "lastSource"}))});
                names.push_back(port);
            }
        }
        (void)names_.read(hosts);
        const auto neighbours = neighboursOf(heard);
        for (std::size_t p = 0; p < heard.size(); ++p) {
            if (neighbours[p].size() != 1 || neighbours[neighbours[p].front()].size() != 1) continue;
            const std::size_t q = neighbours[p].front();
            peer_[{heard[p].bridge, names[p]}] = {heard[q].bridge, names[q]};
        }
    }

    std::vector<FleetStream> streams(std::optional<U64> only) {
        for (std::size_t b = 0; b < bridges_.size(); ++b) {
            for (StreamReport& report : streamReports(bridges_[b].records)) {
                for (const StreamPortReport& port : report.ports) {
                    if (port.carried) holders_[{b, port.name}].emplace_back(report.id, report.kbps);
                }
                const U64 id = report.id;
                reports_[id].emplace(b, std::move(report));
            }
        }
        for (auto& [port, all] : holders_)
            std::ranges::stable_sort(all, std::ranges::greater{}, &std::pair<U64, U64>::second);
        std::vector<FleetStream> found;
        for (const auto& [id, reports] : reports_) {
            if (!only || *only == id) found.push_back(stream(id, reports));
        }
        return found;
    }

private:
    using Reports = std::map<std::size_t, StreamReport>;
    using Place = std::pair<std::size_t, std::string>;  ///< a bridge's port

    [[nodiscard]] const Place* behind(std::size_t bridge, const std::string& port) const {
        const auto found = peer_.find({bridge, port});
        return found == peer_.end() ? nullptr : &found->second;
    }

    [[nodiscard]] FleetStream stream(U64 id, const Reports& reports) const {
        FleetStream s{.id = id};
        // Where it begins: what comes from no bridge of these; and what is joined to none goes last.
        std::vector<std::size_t> order;
        for (const auto& [bridge, report] : reports) order.push_back(bridge);
        std::ranges::stable_sort(order, {}, [&](std::size_t bridge) {
            const StreamReport& report = reports.at(bridge);
            const Place* before = behind(bridge, report.from);
            const bool comesFromOne = before != nullptr && reports.contains(before->first);
            return std::tuple{report.from.empty(), comesFromOne,
                              numberOf(at(report.record, {"accumulatedLatency"}))};
        });
        std::set<std::size_t> seen;
        for (const std::size_t begin : order) {
            std::vector<std::size_t> next{begin};
            for (std::size_t i = 0; i < next.size(); ++i) {
                if (seen.insert(next[i]).second) hop(s, next[i], reports, next);
            }
        }
        return s;
    }

    void hop(FleetStream& s, std::size_t bridge, const Reports& reports,
             std::vector<std::size_t>& next) const {
        const StreamReport& report = reports.at(bridge);
        if (s.destination.empty() && !report.destination.empty()) {
            s.srClass = report.srClass;
            s.destination = report.destination;
            s.vlan = report.vlan;
            s.kbps = report.kbps;
        }
        FleetHop h{.bridge = bridges_[bridge].name,
                   .asOf = bridges_[bridge].asOf,
                   .in = report.from,
                   .latency = numberOf(at(report.record, {"accumulatedLatency"})),
                   .ports = {}};
        if (!s.failure && !report.failure.empty()) s.failure = before(bridge, report);
        for (const StreamPortReport& port : report.ports) {
            const Place* to = behind(bridge, port.name);
            const auto beyond = to != nullptr ? reports.find(to->first) : reports.end();
            const bool leadsOn = beyond != reports.end() && beyond->second.from == to->second;
            if (leadsOn) next.push_back(to->first);
            if (!leadsOn && !asks(port) && !port.carried) continue;
            if (to == nullptr && asks(port)) {
                ++s.listeners;
                if (port.carried) ++s.reached;
            }
            if (!s.failure && !port.carried && (asks(port) || codeAt(report, port.name) != 0))
                s.failure = here(bridge, report, port);
            h.ports.push_back({port.name, to != nullptr ? bridges_[to->first].name : "", port.listener,
                               port.carried, port.reason, port.age});
        }
        s.hops.push_back(std::move(h));
    }

    /// The talker's side has failed already when it comes to this bridge.
    [[nodiscard]] FleetFailure before(std::size_t bridge, const StreamReport& report) const {
        const U64 code = codeAt(report, report.from);
        const auto id = State::parseHex(textOf(at(report.record, {"failedBridgeId"})));
        const auto own =
            EthAddr::parse(textOf(at(bridges_[bridge].records.record("bridging/config"), {"bridgeMac"})));
        if (id && *id != 0 && !(own && bridgeAddress(*id) == own->number()))
            return {names_.bridge(*id, report.from), "", code, failureWhy(code), report.age, {}};
        return {bridges_[bridge].name, report.from, code, report.failure, report.age, {}};
    }

    [[nodiscard]] FleetFailure here(std::size_t bridge, const StreamReport& report,
                                    const StreamPortReport& port) const {
        FleetFailure f{bridges_[bridge].name, port.name, codeAt(report, port.name),
                       port.reason,           port.age,  {}};
        const auto held = holders_.find({bridge, port.name});
        if (port.wait && held != holders_.end()) f.holders = held->second;
        return f;
    }

    static std::string failureWhy(U64 code) {
        const auto* known = std::ranges::find_if(
            failureTexts, [&](const FailureText& text) { return Msrp::number(text.code) == code; });
        return known == std::ranges::end(failureTexts) ? concat("failure code ", code)
                                                       : std::string{known->why};
    }

    const std::vector<FleetBridge>& bridges_;
    BridgeNames names_;
    std::map<Place, Place> peer_;
    std::map<U64, Reports> reports_;
    std::map<Place, std::vector<std::pair<U64, U64>>> holders_;  ///< streams and kbit/s
};

const Column<FleetPort> portColumns[]{
    {"to", [](const auto& p) { return textOrNone(p.to); }},
    {"listener", [](const auto& p) { return textOrNone(p.listener); }},
    {"carried", [](const auto& p) { return p.carried; }},
    {"reason", [](const auto& p) { return textOrNone(p.reason); }},
    {"age", [](const auto& p) { return ageOrNone(p.age); }},
};

}  // namespace
}  // namespace Show

template <>
struct State::Codec<Show::FleetPort> {
    static Value encode(const Show::FleetPort& p) { return objectValue(Show::portColumns, p); }
    static Schema schema() { return Show::objectSchema(Show::portColumns); }
};

namespace Show {
namespace {

const Column<FleetHop> hopColumns[]{
    {"bridge", [](const auto& h) { return h.bridge; }},
    {"asOf", [](const auto& h) { return textOrNone(h.asOf); }},
    {"in", [](const auto& h) { return textOrNone(h.in); }},
    {"latency", [](const auto& h) { return h.latency; }},
    {"ports",
     [](const auto& h) {
         std::vector<std::pair<std::string, FleetPort>> ports;
         for (const FleetPort& port : h.ports) ports.emplace_back(port.port, port);
         return ports;
     }},
};

const Column<FleetFailure> failureColumns[]{
    {"bridge", [](const auto& f) { return f.bridge; }},
    {"port", [](const auto& f) { return textOrNone(f.port); }},
    {"code", [](const auto& f) { return f.code; }},
    {"reason", [](const auto& f) { return f.reason; }},
    {"age", [](const auto& f) { return ageOrNone(f.age); }},
    {"holders",
     [](const auto& f) {
         std::vector<std::pair<std::string, U64>> holders;
         for (const auto& [id, kbps] : f.holders) holders.emplace_back(State::hexText(id), kbps);
         return holders;
     }},
};

}  // namespace
}  // namespace Show

template <>
struct State::Codec<Show::FleetHop> {
    static Value encode(const Show::FleetHop& h) { return objectValue(Show::hopColumns, h); }
    static Schema schema() { return Show::objectSchema(Show::hopColumns); }
};
template <>
struct State::Codec<Show::FleetFailure> {
    static Value encode(const Show::FleetFailure& f) { return objectValue(Show::failureColumns, f); }
    static Schema schema() { return Show::objectSchema(Show::failureColumns); }
};

namespace Show {
namespace {

const Column<FleetStream> fleetColumns[]{
    {"STREAM", "stream", [](const auto& s) { return State::hexText(s.id); }},
    {"NAME", "name", [](const auto& s) { return streamName(s.id); }},
    {"CLASS", "class", [](const auto& s) { return textOrNone(s.srClass); }},
    {"VLAN", "vlan", [](const auto& s) { return s.vlan; }},
    {"DESTINATION", "destination", [](const auto& s) { return textOrNone(s.destination); }},
    {"KBIT/S", "kbps", [](const auto& s) { return s.kbps; }},
    {"listeners", [](const auto& s) { return U64{s.listeners}; }},
    {"reached", [](const auto& s) { return U64{s.reached}; }},
    {"REACHED", "", [](const auto& s) { return concat(s.reached, " of ", s.listeners); }},
    {"path", [](const auto& s) { return Numbered<FleetHop>{s.hops}; }},
    {"failure", [](const auto& s) { return s.failure; }},
};

std::string portText(const FleetPort& port) {
    const std::string to = port.to.empty() ? "" : concat(" (to ", port.to, ')');
    if (port.carried) return port.port + to;
    return concat(port.port, to, " not: ", port.reason);
}

Notes fleetNotes(const FleetStream& s) {
    Notes notes;
    for (const FleetHop& hop : s.hops) {
        std::string line = concat(hop.bridge, hop.asOf.empty() ? "" : concat(" (gone, as of ", hop.asOf, ')'),
                                  ": ", hop.in.empty() ? "no talker" : hop.in, " -> ");
        for (const FleetPort& port : hop.ports)
            line += (&port == hop.ports.data() ? "" : ", ") + portText(port);
        if (hop.ports.empty()) line += "nobody asks";
        if (hop.latency != 0) line += concat("; ", hop.latency, " ns so far");
        notes.push_back({std::move(line), hop.asOf.empty() ? Mood::plain : Mood::waits});
    }
    if (!s.failure) return notes;
    const FleetFailure& f = *s.failure;
    std::string line =
        concat("fails first at ", f.bridge, f.port.empty() ? "" : concat(", ", f.port), ": ", f.reason);
    if (f.age >= 0) line += concat(", since ", ageText(f.age));
    notes.push_back({std::move(line), Mood::bad});
    for (std::size_t i = 0; i < f.holders.size() && i < mostHolders; ++i)
        notes.push_back({concat("    ", State::hexText(f.holders[i].first), " has ", f.holders[i].second,
                                " kbit/s there"),
                         Mood::plain});
    if (f.holders.size() > mostHolders)
        notes.push_back({concat("    and ", f.holders.size() - mostHolders, " others"), Mood::plain});
    return notes;
}

}  // namespace

const std::vector<std::string>& fleetRecords() {
    static const std::vector<std::string> records = [] {
        std::vector<std::string> all = Show::streams().records;
        all.emplace_back("linux/packets");
        return all;
    }();
    return records;
}

std::vector<FleetStream> fleetStreams(const std::vector<FleetBridge>& bridges, std::optional<U64> only) {
    return Fleet{bridges}.streams(only);
}

std::string fleetText(const std::vector<FleetStream>& streams, const Page& page) {
    return streams.empty() ? "no streams\n" : Table{fleetColumns, 1, streams, fleetNotes}.text(page);
}
State::Value fleetValue(const std::vector<FleetStream>& streams) {
    return Table{fleetColumns, 1, streams, fleetNotes}.value();
}
State::Schema fleetSchema() { return tableSchema(fleetColumns, 1); }

}  // namespace Show
