#include "Show/WaitReport.h"

#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <algorithm>
#include <utility>

namespace Show {

using Msrp::U64;
using State::Value;

Msrp::AdmissionRequest portShare(const Snapshot& snapshot, std::string_view port) {
    const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
    const Value& config = snapshot.record("msrp/cliConfig");
    const Value& speed =
        at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port, "speedEnum"});
    const auto known = State::Codec<Interface::Speed>::decode(speed);
    return {.link = Msrp::linkSpeedKbps(known.value_or(Interface::Speed::speedUnknown)),
            .percentA = numberOf(at(config, {"srClassABandwidthPercent"})),
            .percentB = numberOf(at(config, {"srClassBBandwidthPercent"})),
            .allocatedA = numberOf(at(status, {"classBandwidthAllocated", "SrClassA"})),
            .allocatedB = numberOf(at(status, {"classBandwidthAllocated", "SrClassB"}))};
}

WaitingLines::WaitingLines(const Snapshot& snapshot)
    : snapshot_{snapshot},
      bandwidth_{linesOf(at(snapshot.record("msrp/waiting"), {"bandwidthFailedIntf"}), true)},
      address_{linesOf(at(snapshot.record("msrp/waiting"), {"macDaBlocked"}), false)} {
    for (const auto& [key, stream] : membersOf(at(snapshot.record("msrp/status"), {"registeredStreams"}))) {
        const std::string group = textOf(at(stream, {"ethGroup"}));
        const auto id = State::parseHex(key);
        if (id && !group.empty()) holders_.emplace(std::pair{numberOf(at(stream, {"vlanId"})), group}, *id);
    }
}

WaitingLines::Lines WaitingLines::linesOf(const Value& queues, bool ofPorts) const {
    Lines lines;
    const Value& streams = at(snapshot_.record("msrp/status"), {"registeredStreams"});
    for (const auto& [name, queue] : membersOf(queues)) {
        Line& line = lines[name];
        for (const auto& [index, entry] : membersOf(at(queue, {"failedStream"}))) {
            const auto id = State::parseHex(textOf(at(entry, {"stream"})));
            const double since = State::Codec<double>::decode(at(entry, {"since"})).value_or(0.0);
            if (!id) continue;
            // Under its own talker's port a stream only waits to be declared again.
            const bool competes =
                !ofPorts || textOf(at(streams, {State::hexText(*id), "ingressIntf"})) != name;
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
    report.age = std::max(0.0, snapshot_.now - found->second.since);
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
    Msrp::AdmissionRequest request = portShare(snapshot_, port);
    const bool classA = textOf(at(stream, {"srClass"})) == "SrClassA";
    request.srClass = classA ? Msrp::SrClassId::SrClassA : Msrp::SrClassId::SrClassB;
    request.needed = numberOf(at(stream, {"bandwidth"}));
    report.missing = Msrp::missingBandwidth(request);
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
        out += " at place " + std::to_string(report.place) + " behind " + streamName(*report.behind);
    }
    if (report.place == 0) out += ", looked at again when its talker repeats it";
    return out;
}

Value waitValue(const std::optional<WaitReport>& report) {
    if (!report) return {};
    Value place;
    if (report->place != 0) place = Value{U64{report->place}};
    const auto idOrNone = [](const std::optional<U64>& id) {
        return id ? Value{State::hexText(*id)} : Value{};
    };
    return State::Object{{"age", ageOrNone(report->age)},
                         {"place", std::move(place)},
                         {"behind", idOrNone(report->behind)},
                         {"heldBy", idOrNone(report->holder)},
                         {"missingKbps", Value{report->missing}}};
}

}  // namespace Show
