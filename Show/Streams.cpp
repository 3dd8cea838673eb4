#include "Show/Streams.h"

#include "Msrp/types/StreamData.h"
#include "Show/Capabilities.h"
#include "Show/Table.h"
#include "Show/Views.h"

#include <algorithm>
#include <utility>

namespace Show {

using State::Value;

namespace {

const Column<StreamPortReport> streamPortColumns[]{
    {"PORT", "port", [](const auto& p) { return p.name; }},
    {"CARRIED", "carried", [](const auto& p) { return p.carried; }, cellText, wordMood},
    {"TALKER", "talker", [](const auto& p) { return textOrNone(p.talker); }, cellText, wordMood},
    {"LISTENER", "listener", [](const auto& p) { return textOrNone(p.listener); }, cellText, wordMood},
    {"AGE", "age", [](const auto& p) { return ageOrNone(p.age); }, ageCell},
    {"WHY NOT", "reason", [](const auto& p) { return textOrNone(p.reason); }},
    {"waiting", [](const auto& p) { return p.wait; }},
};

Table portsOf(const StreamReport& stream) { return {streamPortColumns, 1, stream.ports}; }

}  // namespace

}  // namespace Show

template <>
struct State::Codec<std::vector<Show::StreamPortReport>> {
    static Value encode(const std::vector<Show::StreamPortReport>& ports) {
        return Show::Table{Show::streamPortColumns, 1, ports}.value();
    }
    static Schema schema() { return Show::tableSchema(Show::streamPortColumns, 1); }
};

namespace Show {

namespace {

const Column<StreamReport> streamColumns[]{
    {"id", [](const auto& s) { return HexId{s.id}; }},
    {"STREAM", "stream", [](const auto& s) { return streamName(s.id); }},
    {"ID", "", [](const auto& s) { return State::hexText(s.id); }},
    {"FROM", "from", [](const auto& s) { return textOrNone(s.from); }},
    {"DESTINATION", "destination", [](const auto& s) { return textOrNone(s.destination); }},
    {"VLAN", "vlan", [](const auto& s) { return s.vlan; }},
    {"CLASS", "class", [](const auto& s) { return textOrNone(s.srClass); }},
    {"KBPS", "kbps", [](const auto& s) { return s.kbps; }},
    {"AGE", "age", [](const auto& s) { return ageOrNone(s.age); }, ageCell},
    {"talker", [](const auto& s) { return textOrNone(s.talker); }},
    {"failure", [](const auto& s) { return textOrNone(s.failure); }},
    {"waiting", [](const auto& s) { return s.wait; }},
    {"ports", [](const auto& s) -> const auto& {return s.ports;
}
}  // namespace Show
, {"record", [](const auto& s) { return Recorded<Msrp::StreamData>{s.record}; }},
}
;

/// Nothing is wrong where nobody asks for it.
Mood standing(const StreamReport& stream, const StreamPortReport& port) {
    if (port.wait) return Mood::waits;
    const bool asked = !port.listener.empty() && port.listener != "Ignore";
    return asked && !stream.from.empty() ? Mood::bad : Mood::plain;
}

/// Ports with the same reason share a line; the reasons come in the order of their first ports.
void addOthers(const StreamReport& stream, Notes& notes) {
    struct Reason {
        std::string text;
        std::string ports;
        Mood mood;
    };
    std::vector<Reason> reasons;
    for (const StreamPortReport& port : stream.ports) {
        if (port.carried) continue;
        const auto found = std::ranges::find(reasons, port.reason, &Reason::text);
        if (found == reasons.end()) {
            reasons.push_back({port.reason, port.name, standing(stream, port)});
        } else {
            found->ports.append(", ").append(port.name);
        }
    }
    for (const Reason& reason : reasons)
        notes.push_back({"not to " + reason.ports + ": " + reason.text, reason.mood});
}

Notes notes(const StreamReport& stream) {
    Notes all;
    std::string carriers;
    for (const StreamPortReport& port : stream.ports) {
        if (!port.carried) continue;
        carriers += (carriers.empty() ? "" : ", ") + port.name + " (" + ageText(port.age) + ')';
    }
    if (!stream.failure.empty()) all.push_back({"talker failed: " + stream.failure, Mood::bad});
    if (!carriers.empty()) all.push_back({"to " + carriers, Mood::good});
    addOthers(stream, all);
    return all;
}

std::string streamsText(const Snapshot& snapshot, const Page& page) {
    const auto all = streamReports(snapshot);
    return (all.empty() ? "no streams\n" : Table{streamColumns, 1, all, notes}.text(page)) +
           floodText(snapshot);
}

Value streamsValue(const Snapshot& snapshot) {
    return Table{streamColumns, 1, streamReports(snapshot)}.value();
}

}  // namespace

const View& streams() {
    static const View view{{"msrp/status", "msrp/waiting", "msrp/config", "msrp/cliConfig", "bridging/config",
                            "bridging/input/config/msrp", "linux/groups", "interface/status/eth/phy/all",
                            "linux/config", "switch/refusals"},
                           streamsText,
                           streamsValue,
                           [] { return tableSchema(streamColumns, 1); }};
    return view;
}

std::string streamText(const Snapshot& snapshot, const StreamReport& stream, const Page& page) {
    const auto number = [&](std::string_view field) {
        return std::to_string(numberOf(at(stream.record, {field})));
    };
    std::string talker = "none";
    if (!stream.from.empty()) {
        talker = stream.from + ", " + (stream.talker.empty() ? "nothing declared" : stream.talker) +
                 " since " + ageText(stream.age);
    }
    if (!stream.failure.empty()) talker += ", " + stream.failure;
    return facts(
               {{"stream", streamName(stream.id) + " (" + State::hexText(stream.id) + ")"},
                {"talker", talker},
                {"destination", stream.destination + ", VLAN " + std::to_string(stream.vlan)},
                {"class",
                 stream.srClass + ", priority " + number("dataFramePriority") + ", rank " + number("rank")},
                {"bandwidth", std::to_string(stream.kbps) + " kbps (" + number("maxIntervalFrames") +
                                  " frames of at most " + number("maxFrameSize") + " octets in an interval)"},
                {"latency", number("accumulatedLatency") + " ns up to here"}},
               page) +
           (stream.ports.empty() ? "" : portsOf(stream).text(page)) + floodText(snapshot);
}

Value streamValue(const StreamReport& stream, const Value& stages, const Value& gone) {
    const Value all = Table{streamColumns, 1, std::vector{stream}}.value();
    State::Object members = membersOf(membersOf(all).front().second);
    members.emplace_back("stages", stages.isNull() ? Value{State::Object{}} : stages);
    members.emplace_back("gone", gone);
    return members;
}

State::Schema streamSchema(const State::Schema& stages, const State::Schema& gone) {
    State::Schema schema = objectSchema(streamColumns, 1);
    schema.fields.emplace_back("stages", stages);
    schema.fields.emplace_back("gone", State::orNull(gone));
    return schema;
}

}  // namespace Show
