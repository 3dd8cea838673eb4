#include "Show/Log.h"

#include "Runtime/LogConfig.h"
#include "Show/Table.h"
#include "Show/Views.h"
#include "State/Codec.h"

#include <chrono>
#include <cstdio>
#include <optional>

namespace Show {

using State::Value;

namespace {

struct LogRow {
    std::string number;
    double time;  ///< seconds on the daemon's clock
    double age;
    const Value& level;
    const Value& text;
};

const Column<LogRow> logColumns[]{
    {"number", [](const auto& r) { return r.number; }},
    {"time", [](const auto& r) { return r.time; }},
    {"AGE", "", [](const auto& r) { return r.age; }, ageCell},
    {"LEVEL", "level", [](const auto& r) { return known<Runtime::LogLevel>(r.level); }, cellText, wordMood},
    {"LINE", "text", [](const auto& r) { return textOf(r.text); }},
};

Table logTable(const Snapshot& snapshot) {
    std::vector<LogRow> rows;
    for (const auto& [number, line] : membersOf(at(snapshot.record("log"), {"line"}))) {
        const double time = State::Codec<double>::decode(at(line, {"time"})).value_or(snapshot.now);
        rows.push_back({number, time, snapshot.now - time, at(line, {"level"}), at(line, {"text"})});
    }
    return {logColumns, 1, rows};
}

}  // namespace

const View& log() {
    static const View view{{"log"},
                           [](const Snapshot& s, const Page& page) { return logTable(s).text(page); },
                           [](const Snapshot& s) -> Value {
                               return State::Object{{"line", logTable(s).value()}};
                           },
                           [] {
                               return State::objectOf({{"line", tableSchema(logColumns, 1)}});
                           }};
    return view;
}

std::string wallText(const std::optional<Runtime::WallTime>& time, unsigned digits) {
    using namespace std::chrono;
    if (!time) return "-";
    const auto day = floor<days>(*time);
    const year_month_day date{day};
    const hh_mm_ss clock{floor<microseconds>(*time) - day};
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    std::string out{text};
    out.resize(out.size() - (digits < 6 ? 6 - digits : 0));
    return out + 'Z';
}

std::string ringText(const Runtime::RingRecord& record) {
    char text[64];
    std::snprintf(text, sizeof text, " %.6f ", Runtime::seconds(record.time));
    std::string out = std::to_string(record.sequence) + ' ' + wallText(record.wallTime) + text + record.label;
    for (const std::uint64_t argument : record.arguments) {
        std::snprintf(text, sizeof text, " %llx", static_cast<unsigned long long>(argument));
        out += text;
    }
    return out;
}

namespace {

const Column<Runtime::RingRecord> ringColumns[]{
    {"sequence", [](const auto& r) { return r.sequence; }},
    {"wallTime",
     [](const auto& r) {
         return r.wallTime
                    ? std::optional{std::chrono::duration<double>(r.wallTime->time_since_epoch()).count()}
                    : std::nullopt;
     }},
    {"time", [](const auto& r) { return Runtime::seconds(r.time); }},
    {"label", [](const auto& r) { return r.label; }},
    {"arguments",
     [](const auto& r) {
         return Numbered<std::uint64_t>{{r.arguments.begin(), r.arguments.end()}};
     }},
};

}  // namespace

Value ringValue(const Runtime::RingRecord& record) { return objectValue(ringColumns, record); }
State::Schema ringSchema() { return objectSchema(ringColumns); }

}  // namespace Show
