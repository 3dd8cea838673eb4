#include "Show/Streams.h"

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
    {"CARRIED", "carried", [](const auto& p) { return p.carried; }},
    {"TALKER", "talker", [](const auto& p) { return textOrNone(p.talker); }},
    {"LISTENER", "listener", [](const auto& p) { return textOrNone(p.listener); }},
    {"AGE", "age", [](const auto& p) { return ageOrNone(p.age); }, ageCell},
    {"WHY NOT", "reason", [](const auto& p) { return textOrNone(p.reason); }},
    {"", "waiting", [](const auto& p) { return waitValue(p.wait); }},
};

Table portsOf(const StreamReport& stream) { return {streamPortColumns, 1, stream.ports}; }

const Column<StreamReport> streamColumns[]{
    {"", "id", [](const auto& s) { return State::hexText(s.id); }},
    {"STREAM", "stream", [](const auto& s) { return streamName(s.id); }},
    {"ID", "", [](const auto& s) { return State::hexText(s.id); }},
    {"FROM", "from", [](const auto& s) { return textOrNone(s.from); }},
    {"DESTINATION", "destination", [](const auto& s) { return textOrNone(s.destination); }},
    {"VLAN", "vlan", [](const auto& s) { return s.vlan; }},
    {"CLASS", "class", [](const auto& s) { return textOrNone(s.srClass); }},
    {"KBPS", "kbps", [](const auto& s) { return s.kbps; }},
    {"AGE", "age", [](const auto& s) { return ageOrNone(s.age); }, ageCell},
    {"", "talker", [](const auto& s) { return textOrNone(s.talker); }},
    {"", "failure", [](const auto& s) { return textOrNone(s.failure); }},
    {"", "waiting", [](const auto& s) { return waitValue(s.wait); }},
    {"", "ports", [](const auto& s) { return portsOf(s).value(); }},
    {"", "record", [](const auto& s) { return s.record; }},
};

/// Ports with the same reason share a line; the reasons come in the order of their first ports.
std::string others(const StreamReport& stream) {
    std::vector<std::pair<std::string, std::string>> byReason;
    for (const StreamPortReport& port : stream.ports) {
        if (port.carried) continue;
        const auto found =
            std::ranges::find(byReason, port.reason, &std::pair<std::string, std::string>::first);
        if (found == byReason.end()) {
            byReason.emplace_back(port.reason, port.name);
        } else {
            found->second.append(", ").append(port.name);
        }
    }
    std::string out;
    for (const auto& [reason, names] : byReason) {
        out.append("    not to ").append(names).append(": ").append(reason).append("\n");
    }
    return out;
}

std::string notes(const StreamReport& stream) {
    std::string carriers;
    for (const StreamPortReport& port : stream.ports) {
        if (!port.carried) continue;
        carriers += (carriers.empty() ? "" : ", ") + port.name + " (" + ageText(port.age) + ')';
    }
    return (stream.failure.empty() ? "" : "    talker failed: " + stream.failure + '\n') +
           (carriers.empty() ? "" : "    to " + carriers + '\n') + others(stream);
}

std::string streamsText(const Snapshot& snapshot) {
    const auto all = streamReports(snapshot);
    return (all.empty() ? "no streams\n" : Table{streamColumns, 1, all, notes}.text()) + floodText(snapshot);
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
                           streamsValue};
    return view;
}

std::string streamText(const Snapshot& snapshot, const StreamReport& stream) {
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
                {"latency", number("accumulatedLatency") + " ns up to here"}}) +
           (stream.ports.empty() ? "" : portsOf(stream).text()) + floodText(snapshot);
}

Value streamValue(const StreamReport& stream) {
    const Value all = Table{streamColumns, 1, std::vector{stream}}.value();
    return membersOf(all).front().second;
}

}  // namespace Show
