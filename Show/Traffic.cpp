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

std::optional<std::uint64_t> counter(const TrafficRow& row, std::string_view name) {
    return known<std::uint64_t>(at(row.counted, {name}));
}

/// Seconds without a frame; nothing while frames come, or when there has never been one.
std::optional<double> silence(const TrafficRow& row) {
    const double last = known<double>(at(row.counted, {"lastFrame"})).value_or(0.0);
    const bool silent = last > 0.0 && counter(row, "kbps").value_or(0) == 0;
    return silent ? std::optional{row.now - last} : std::nullopt;
}

const Column<TrafficRow> trafficColumns[]{
    {"id", [](const auto& r) { return HexId{r.stream.id}; }},
    {"STREAM", "stream", [](const auto& r) { return streamName(r.stream.id); }},
    {"FROM", "from", [](const auto& r) { return textOrNone(r.stream.from); }},
    {"CLASS", "class", [](const auto& r) { return textOrNone(r.stream.srClass); }},
    {"RESERVED KBPS", "reserved", [](const auto& r) { return r.stream.kbps; }},
    {"FLOWING KBPS", "flowing", [](const auto& r) { return counter(r, "kbps"); }},
    {"FRAMES", "frames", [](const auto& r) { return counter(r, "frames"); }},
    {"octets", [](const auto& r) { return counter(r, "octets"); }},
    {"OVER", "over", [](const auto& r) { return counter(r, "over"); }},
    {"OTHER PRIORITY", "otherPriority", [](const auto& r) { return counter(r, "otherPriority"); }},
    {"SILENT FOR", "silent", [](const auto& r) { return silence(r); }, ageCell},
    {"problem", [](const auto& r) { return textOrNone(r.problem); }},
};

Table trafficTable(const Snapshot& snapshot) {
    std::vector<TrafficRow> rows;
    for (StreamReport& stream : streamReports(snapshot)) {
        const Value& counted = at(snapshot.record(trafficPath), {"stream", State::hexText(stream.id)});
        std::string problem = textOf(at(snapshot.record(ofFences), {"port", stream.from, "problem"}));
        rows.push_back({std::move(stream), counted, std::move(problem), snapshot.now});
    }
    return {trafficColumns, 1, rows, [](const TrafficRow& r) {
                return r.problem.empty() ? Notes{} : Notes{{"not seen: " + r.problem, Mood::bad}};
            }};
}

std::string trafficText(const Snapshot& snapshot, const Page& page) {
    const std::string metering = textOf(at(snapshot.record("linux/config"), {"streams"}));
    if (metering != "measure" && metering != "police")
        return "streams are not measured: that takes \"streams\": \"measure\" or \"police\" in "
               "linux/config\n";
    const std::string problem = textOf(at(snapshot.record(trafficPath), {"problem"}));
    return trafficTable(snapshot).text(page) + (problem.empty() ? "" : problem + '\n');
}

}  // namespace

const View& traffic() {
    static const View view = [] {
        View made{streams().records, trafficText, [](const Snapshot& s) { return trafficTable(s).value(); },
                  [] { return tableSchema(trafficColumns, 1); }};
        made.records.emplace_back(trafficPath);
        made.records.emplace_back(ofFences);
        return made;
    }();
    return view;
}

}  // namespace Show
