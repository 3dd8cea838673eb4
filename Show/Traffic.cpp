#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Show/Views.h"

namespace Show {

using State::Value;

namespace {

constexpr std::string_view trafficPath = "linux/traffic";
constexpr std::string_view ofFences = "linux/fence";

struct TrafficRow {
    StreamReport stream;
    const Value& counted;
    std::string problem;  ///< of the talker's port
    double now;
};

Value counter(const TrafficRow& row, std::string_view name) { return at(row.counted, {name}); }

/// Seconds without a frame; null while frames come, or when there has never been one.
Value silence(const TrafficRow& row) {
    const auto last = State::Codec<double>::decode(counter(row, "lastFrame")).value_or(0.0);
    const bool silent = last > 0.0 && numberOf(counter(row, "kbps")) == 0;
    return silent ? Value{row.now - last} : Value{};
}

const Column<TrafficRow> trafficColumns[]{
    {"", "id", [](const auto& r) { return State::hexText(r.stream.id); }},
    {"STREAM", "stream", [](const auto& r) { return streamName(r.stream.id); }},
    {"FROM", "from", [](const auto& r) { return textOrNone(r.stream.from); }},
    {"CLASS", "class", [](const auto& r) { return textOrNone(r.stream.srClass); }},
    {"RESERVED KBPS", "reserved", [](const auto& r) { return r.stream.kbps; }},
    {"FLOWING KBPS", "flowing", [](const auto& r) { return counter(r, "kbps"); }},
    {"FRAMES", "frames", [](const auto& r) { return counter(r, "frames"); }},
    {"", "octets", [](const auto& r) { return counter(r, "octets"); }},
    {"OVER", "over", [](const auto& r) { return counter(r, "over"); }},
    {"OTHER PRIORITY", "otherPriority", [](const auto& r) { return counter(r, "otherPriority"); }},
    {"SILENT FOR", "silent", [](const auto& r) { return silence(r); }, ageCell},
    {"", "problem", [](const auto& r) { return textOrNone(r.problem); }},
};

Table trafficTable(const Snapshot& snapshot) {
    std::vector<TrafficRow> rows;
    for (StreamReport& stream : streamReports(snapshot)) {
        const Value& counted = at(snapshot.record(trafficPath), {"stream", State::hexText(stream.id)});
        std::string problem = textOf(at(snapshot.record(ofFences), {"port", stream.from, "problem"}));
        rows.push_back({std::move(stream), counted, std::move(problem), snapshot.now});
    }
    return {trafficColumns, 1, rows,
            [](const TrafficRow& r) { return r.problem.empty() ? "" : "    not seen: " + r.problem + '\n'; }};
}

std::string trafficText(const Snapshot& snapshot) {
    const std::string metering = textOf(at(snapshot.record("linux/config"), {"streams"}));
    if (metering != "measure" && metering != "police")
        return "streams are not measured: that takes \"streams\": \"measure\" or \"police\" in "
               "linux/config\n";
    const std::string problem = textOf(at(snapshot.record(trafficPath), {"problem"}));
    return trafficTable(snapshot).text() + (problem.empty() ? "" : problem + '\n');
}

}  // namespace

const View& traffic() {
    static const View view = [] {
        View made{streams().records, trafficText, [](const Snapshot& s) { return trafficTable(s).value(); }};
        made.records.emplace_back(trafficPath);
        made.records.emplace_back(ofFences);
        return made;
    }();
    return view;
}

}  // namespace Show
