#include "Show/History.h"

#include "Msrp/types/Enums.h"
#include "Show/BridgeNames.h"
#include "Show/FailureCodes.h"
#include "Show/Log.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "State/Codec.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <utility>
#include <vector>

namespace Show {

using State::Value;

namespace {

std::optional<double> secondsOf(const Value& value) { return State::Codec<double>::decode(value); }

std::string wallClock(const Value& seconds) {
    const auto since = secondsOf(seconds);
    if (!since) return "-";
    return wallText(Runtime::WallTime{Runtime::secondsDuration(*since)}, 3);
}

/// In the words of `explain`.
std::string codeName(const Value& value) {
    const auto code = numberOf(value);
    return code != 0 && code <= failureTexts.size() ? codeText(code) : "a failure that is not known here";
}

std::string streamCell(const Value& id) {
    const auto number = State::parseHex(textOf(id));
    return number ? streamName(*number) : "-";
}

/// "class A, 9088 kbps, to 91:e0:f0:00:fe:01 in VLAN 2", as far as it is told.
std::string measures(const Value& event) {
    std::vector<std::string> parts;
    const std::string srClass = textOf(at(event, {"class"}));
    if (srClass.starts_with("SrClass")) parts.push_back("class " + srClass.substr(7));
    if (const auto kbps = numberOf(at(event, {"kbps"})); kbps != 0)
        parts.push_back(std::to_string(kbps) + " kbps");
    if (const std::string to = textOf(at(event, {"destination"})); !to.empty())
        parts.push_back("to " + to + " in VLAN " + std::to_string(numberOf(at(event, {"vlan"}))));
    std::string out;
    for (const std::string& part : parts) out += (out.empty() ? "" : ", ") + part;
    return out;
}

std::string detail(const Value& event) {
    const auto text = [&event](std::string_view name) { return textOf(at(event, {name})); };
    const std::string kind = text("kind");
    const auto change = [&] { return text("field") + ": " + text("before") + " -> " + text("after"); };
    const auto with = [](std::string first, const std::string& second, const char* between) {
        if (second.empty()) return first;
        return first.empty() ? second : first + between + second;
    };
    if (kind == "port") return change();
    if (kind == "domain") return with(change(), text("text"), ", ");
    if (kind == "config") return with(with(text("text"), change(), " "), text("by"), " by ");
    if (kind == "refused" || kind == "accepted") return with(text("field"), text("text"), ": ");
    if (kind == "failed" || kind == "waits") {
        std::string out =
            codeName(at(event, {"code"})) + " (code " + std::to_string(numberOf(at(event, {"code"}))) + ')';
        if (const auto bridge = State::parseHex(text("bridge")))
            out += ", found by bridge " + bridgeIdText(*bridge);
        return with(out, measures(event), ", ");
    }
    if (kind == "left")
        return with(with(text("reason"), measures(event), "; "), with("", text("text"), ""),
                    "; had been asked for: ");
    return with(with(text("text"), text("reason"), ", "), measures(event), ", ");
}

struct EventRow {
    std::string sequence;
    const Value& event;
};

const Column<EventRow> eventColumns[]{
    {"NUMBER", "", [](const auto& r) { return r.sequence; }},
    {"TIME", "", [](const auto& r) { return at(r.event, {"wallTime"}); }, wallClock},
    {"EVENT", "", [](const auto& r) { return at(r.event, {"kind"}); }, cellText, wordMood},
    {"PORT", "", [](const auto& r) { return at(r.event, {"port"}); }},
    {"STREAM", "", [](const auto& r) { return at(r.event, {"stream"}); }, streamCell},
    {"WHAT", "", [](const auto& r) { return textOrNone(detail(r.event)); }},
};

Notes missingBefore(const EventRow& row) {
    const std::uint64_t missing = numberOf(at(row.event, {"missing"}));
    if (missing == 0) return {};
    return {{"(" + std::to_string(missing) + " before this are kept no longer)"}};
}

std::string spanShort(double seconds) {
    char text[32];
    if (seconds < 1e-3) {
        std::snprintf(text, sizeof text, "%.0f us", seconds * 1e6);
    } else if (seconds < 1) {
        std::snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
    } else {
        std::snprintf(text, sizeof text, "%.2f s", seconds);
    }
    return text;
}

std::string spanShortCell(const Value& cell) {
    const auto seconds = secondsOf(cell);
    return seconds ? spanShort(*seconds) : "-";
}

std::vector<std::pair<std::string, std::uint64_t>> numbersOf(const Value& value) {
    std::vector<std::pair<std::string, std::uint64_t>> all;
    for (const auto& [name, member] : membersOf(value)) all.emplace_back(name, numberOf(member));
    return all;
}

struct TimesRow {
    std::string stage;
    const Value& times;
};

const Column<TimesRow> timesColumns[]{
    {"STAGE", "stage", [](const auto& r) { return r.stage; }},
    {"COUNT", "count", [](const auto& r) { return numberOf(at(r.times, {"count"})); }},
    {"MEDIAN", "median", [](const auto& r) { return secondsOf(at(r.times, {"median"})); }, spanShortCell},
    {"90 %", "p90", [](const auto& r) { return secondsOf(at(r.times, {"p90"})); }, spanShortCell},
    {"99 %", "p99", [](const auto& r) { return secondsOf(at(r.times, {"p99"})); }, spanShortCell},
    {"MAXIMUM", "max", [](const auto& r) { return secondsOf(at(r.times, {"max"})); }, spanShortCell},
    {"sum", [](const auto& r) { return secondsOf(at(r.times, {"sum"})); }},
    {"bucket", [](const auto& r) { return numbersOf(at(r.times, {"bucket"})); }},
};

Table timesTable(const Snapshot& snapshot) {
    std::vector<TimesRow> rows;
    for (const auto& [stage, times] : membersOf(at(snapshot.record("history/times"), {"stage"})))
        rows.push_back({stage, times});
    return {timesColumns, 1, rows};
}

struct StagesRow {
    std::string port;
    const Value& stages;

    /// From the later of two stages to a third one; null where one is missing.
    [[nodiscard]] Value span(std::string_view from, std::string_view orFrom, std::string_view to) const {
        const auto first = secondsOf(at(stages, {from}));
        const auto second = secondsOf(at(stages, {orFrom}));
        const auto end = secondsOf(at(stages, {to}));
        if (!first || !second || !end) return {};
        return Value{std::max(0.0, *end - std::max(*first, *second))};
    }
};

const Column<StagesRow> stagesColumns[]{
    {"PORT", "", [](const auto& r) { return r.port; }},
    {"DECLARED", "", [](const auto& r) { return r.span("talker", "talker", "declared"); }, spanShortCell},
    {"ASKED", "", [](const auto& r) { return r.span("declared", "declared", "asked"); }, spanShortCell},
    {"ADMITTED", "", [](const auto& r) { return r.span("declared", "asked", "admitted"); }, spanShortCell},
    {"GROUP", "", [](const auto& r) { return r.span("admitted", "admitted", "group"); }, spanShortCell},
    {"QUEUE", "", [](const auto& r) { return r.span("admitted", "admitted", "queue"); }, spanShortCell},
};

}  // namespace

std::string historyText(const Value& answer, const Page& page) {
    std::vector<EventRow> rows;
    for (const auto& [sequence, event] : membersOf(at(answer, {"event"}))) rows.push_back({sequence, event});
    if (rows.empty()) return "nothing has happened\n";
    return Table{eventColumns, 1, rows, missingBefore}.text(page);
}

std::string eventLine(const std::string& sequence, const Value& event) {
    const EventRow row{sequence, event};
    const std::uint64_t missing = numberOf(at(event, {"missing"}));
    std::string out = missing == 0 ? "" : "    (" + std::to_string(missing) + " are kept no longer)\n";
    for (const auto& column : eventColumns) {
        const std::string cell = printable(column.text(column.cell(row)));
        if (&column != eventColumns) out += ' ';
        out += cell;
    }
    return out + '\n';
}

Value eventValue(const std::string& sequence, const Value& event) {
    State::Object members{{"sequence", Value{State::parseDecimal(sequence, UINT64_MAX).value_or(0)}}};
    std::ranges::copy(membersOf(event), std::back_inserter(members));
    return members;
}

State::Schema eventSchema(State::Schema event) {
    event.fields.insert(event.fields.begin(), {"sequence", State::Codec<std::uint64_t>::schema()});
    return event;
}

const View& times() {
    static const View view{{"history/times"},
                           [](const Snapshot& s, const Page& page) { return timesTable(s).text(page); },
                           [](const Snapshot& s) -> Value {
                               return State::Object{{"stage", timesTable(s).value()}};
                           },
                           [] {
                               return State::objectOf({{"stage", tableSchema(timesColumns, 1)}});
                           }};
    return view;
}

std::string goneText(std::uint64_t stream, const Value& gone, const Page& page) {
    std::string ports;
    for (const auto& [port, had] : membersOf(at(gone, {"port"}))) {
        ports += (ports.empty() ? "" : ", ") + port + ' ' + textOf(at(had, {"holding"}));
        if (numberOf(at(had, {"code"})) != 0) ports += " (" + codeName(at(had, {"code"})) + ')';
    }
    const Value& code = at(gone, {"code"});
    std::string talker = textOf(at(gone, {"talker"})) + ", " + textOf(at(gone, {"reason"}));
    if (numberOf(code) != 0) talker += ", had failed: " + codeName(code);
    return facts({{"stream", streamName(stream) + " (" + State::hexText(stream) + ")"},
                  {"gone since", wallClock(at(gone, {"wallTime"}))},
                  {"talker", talker},
                  {"carried", measures(gone)},
                  {"ports", ports.empty() ? "nobody asked for it" : ports}},
                 page);
}

std::string stagesText(const Value& stages, const Page& page) {
    std::vector<StagesRow> rows;
    for (const auto& [port, times] : membersOf(stages)) rows.push_back({port, times});
    return rows.empty() ? "" : "\nhow long it took\n" + Table{stagesColumns, 1, rows}.text(page);
}

std::optional<double> parseTime(const std::string& text, double now) {
    using namespace std::chrono;
    const std::string_view units = "smhd";
    constexpr double spans[]{1, 60, 3600, 86'400};
    if (const std::size_t unit = text.empty() ? units.npos : units.find(text.back()); unit != units.npos) {
        const auto count =
            State::parseDecimal(std::string_view{text}.substr(0, text.size() - 1), 1'000'000'000);
        if (!count) return std::nullopt;
        return std::max(0.0, now - static_cast<double>(*count) * spans[unit]);
    }
    // What is not said of the time of day is zero.
    constexpr std::string_view form = "0000-00-00T00:00:00";
    std::string whole = text.ends_with('Z') ? text.substr(0, text.size() - 1) : text;
    if (whole.size() < 10 || whole.size() > form.size() || whole.size() == 11 || whole.size() == 12 ||
        whole.size() == 14 || whole.size() == 15 || whole.size() == 17 || whole.size() == 18)
        return std::nullopt;
    whole += form.substr(whole.size());
    if (whole[10] == ' ') whole[10] = 'T';
    for (std::size_t i = 0; i < form.size(); ++i) {
        if ((form[i] == '0') != (whole[i] >= '0' && whole[i] <= '9') ||
            (form[i] != '0' && whole[i] != form[i]))
            return std::nullopt;
    }
    const auto number = [&](std::size_t from, std::size_t digits) {
        return static_cast<int>(
            State::parseDecimal(std::string_view{whole}.substr(from, digits), 9999).value_or(0));
    };
    const year_month_day date{year{number(0, 4)}, month{static_cast<unsigned>(number(5, 2))},
                              day{static_cast<unsigned>(number(8, 2))}};
    if (!date.ok() || number(11, 2) > 23 || number(14, 2) > 59 || number(17, 2) > 60) return std::nullopt;
    const auto moment =
        sys_days{date} + hours{number(11, 2)} + minutes{number(14, 2)} + seconds{number(17, 2)};
    const double since = duration<double>(moment.time_since_epoch()).count();
    return since < 0 ? std::nullopt : std::optional{since};
}

}  // namespace Show
