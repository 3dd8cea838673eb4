#include "Show/WaitReport.h"

#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace Show {

using Msrp::U64;
using State::Value;

WaitingLines::WaitingLines(const Snapshot& snapshot) : snapshot_{snapshot} {
    // Members of a value are found one by one, so all streams are looked at once.
    std::unordered_map<U64, std::string> talkerPorts;
    for (const auto& [key, stream] : membersOf(at(snapshot.record("msrp/status"), {"registeredStreams"}))) {
        const std::string group = textOf(at(stream, {"ethGroup"}));
        const auto id = State::parseHex(key);
        if (!id) continue;
        talkerPorts.emplace(*id, textOf(at(stream, {"ingressIntf"})));
        if (!group.empty()) holders_.emplace(std::pair{numberOf(at(stream, {"vlanId"})), group}, *id);
    }
    bandwidth_ = linesOf(at(snapshot.record("msrp/waiting"), {"bandwidthFailedIntf"}), talkerPorts);
    address_ = linesOf(at(snapshot.record("msrp/waiting"), {"macDaBlocked"}), {});
}

WaitingLines::Lines WaitingLines::linesOf(const Value& queues,
                                          const std::unordered_map<U64, std::string>& talkerPorts) {
    Lines lines;
    for (const auto& [name, queue] : membersOf(queues)) {
        Line& line = lines[name];
        for (const auto& [index, entry] : membersOf(at(queue, {"failedStream"}))) {
            const auto id = State::parseHex(textOf(at(entry, {"stream"})));
            const double since = State::Codec<double>::decode(at(entry, {"since"})).value_or(0.0);
            if (!id) continue;
            // Under its own talker's port a stream only waits to be declared again.
            const auto port = talkerPorts.find(*id);
            const bool competes = port == talkerPorts.end() || port->second != name;
            const Place place{competes ? line.order.size() + 1 : 0, since};
            // A stream may stand twice; its first place counts.
            if (line.place.emplace(*id, place).second && competes) line.order.push_back(*id);
        }
    }
    return lines;
}

WaitReport WaitingLines::standing(const Lines& lines, const std::string& name, U64 id) const {
    WaitReport report;
    const auto line = lines.find(name);
    if (line == lines.end()) return report;
    const auto found = line->second.place.find(id);
    if (found == line->second.place.end()) return report;
    report.age = snapshot_.since(found->second.since);
    report.place = found->second.number;
    if (report.place > 1) report.behind = line->second.order[report.place - 2];
    return report;
}

WaitReport WaitingLines::forBandwidth(U64 id, const Value& stream, const std::string& port) const {
    WaitReport report = standing(bandwidth_, port, id);
    if (report.place == 0) {
        // Refused when its talker declared it, it stands under the talker's port.
        report.age = standing(bandwidth_, textOf(at(stream, {"ingressIntf"})), id).age;
    }
    report.missing = Msrp::missingBandwidth(admissionRequest(
        snapshot_, port, classNamed(textOf(at(stream, {"srClass"}))), numberOf(at(stream, {"bandwidth"}))));
    return report;
}

WaitReport WaitingLines::forAddress(U64 id, const Value& stream) const {
    const std::string address = textOf(at(stream, {"macDa"}));
    WaitReport report = standing(address_, address, id);
    const auto holder = holders_.find({numberOf(at(stream, {"vlanId"})), address});
    if (holder != holders_.end()) report.holder = holder->second;
    return report;
}

std::string waitText(const WaitReport& report) {
    std::string out;
    if (report.missing != 0) out += ", " + std::to_string(report.missing) + " kbps missing";
    if (report.holder) out += ", held by " + streamName(*report.holder);
    if (report.age >= 0) out += ", waiting for " + ageText(report.age);
    if (report.place == 1) out += ", first in line";
    if (report.behind) {
        out += report.age >= 0 ? " at place " : ", at place ";
        out += std::to_string(report.place) + " behind " + streamName(*report.behind);
    }
    if (report.place == 0) out += ", looked at again when its talker repeats it";
    return out;
}

namespace {

std::optional<HexId> idOrNone(const std::optional<U64>& id) {
    return id ? std::optional{HexId{*id}} : std::nullopt;
}

const Column<WaitReport> waitColumns[]{
    {"age", [](const auto& w) { return ageOrNone(w.age); }},
    {"place", [](const auto& w) { return w.place != 0 ? std::optional{w.place} : std::nullopt; }},
    {"behind", [](const auto& w) { return idOrNone(w.behind); }},
    {"heldBy", [](const auto& w) { return idOrNone(w.holder); }},
    {"missingKbps", [](const auto& w) { return w.missing; }},
};

}  // namespace

}  // namespace Show

State::Value State::Codec<Show::WaitReport>::encode(const Show::WaitReport& report) {
    return Show::objectValue(Show::waitColumns, report);
}

State::Schema State::Codec<Show::WaitReport>::schema() { return Show::objectSchema(Show::waitColumns); }
