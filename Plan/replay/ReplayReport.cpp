#include "Plan/replay/ReplayReport.h"

#include "Plan/Report.h"
#include "Runtime/Text.h"
#include "Show/FailureCodes.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Show/Verdict.h"

#include <algorithm>
#include <utility>

namespace Plan {

using Runtime::concat;
using State::Value;

namespace {

struct PortRow {
    std::string name;
    ReplayPort port;
};

/// Of a port that can be compared.
Value comparedOrNone(const PortRow& row, std::size_t count) {
    return row.port.compared ? Value{std::uint64_t{count}} : Value{};
}

constexpr auto replayColumns = std::to_array<Show::Column<PortRow>>({
    {"PORT", "", [](const PortRow& r) { return r.name; }},
    {"IN", "in", [](const PortRow& r) { return std::uint64_t{r.port.in}; }},
    {"BRIDGE", "bridge", [](const PortRow& r) { return std::uint64_t{r.port.sent}; }},
    {"OURS", "ours", [](const PortRow& r) { return std::uint64_t{r.port.ours}; }},
    {"ATTRIBUTES", "attributes", [](const PortRow& r) { return comparedOrNone(r, r.port.attributes); }},
    {"DIFFERENT", "different", [](const PortRow& r) { return comparedOrNone(r, r.port.findings); }},
});

std::vector<PortRow> rowsOf(const Traffic& traffic, const ReplayResult& result) {
    std::vector<PortRow> rows;
    for (std::size_t p = 0; p < traffic.ports.size(); ++p)
        rows.push_back({traffic.ports[p], result.ports[p]});
    std::ranges::sort(rows, {}, &PortRow::name);
    return rows;
}

const Declaration* pointerTo(const std::optional<Declaration>& declaration) {
    return declaration ? &*declaration : nullptr;
}

std::uint64_t codeOf(const std::optional<Declaration>& declaration) {
    if (!declaration || declaration->type != Msrp::typeTalkerFailed) return 0;
    return Msrp::number(Msrp::MsrpTalkerFailedAttribute{declaration->value.octets}.failureCode());
}

double inSeconds(Runtime::Duration span) { return std::chrono::duration<double>(span).count(); }

std::string quantity(std::size_t n, const char* what) { return concat(n, ' ', what, n == 1 ? "" : "s"); }

Value sideValue(const std::optional<Declaration>& declaration, const std::string& text) {
    return State::Object{{"text", Value{text}},
                         {"type", Value{std::uint64_t{declaration ? declaration->type : 0U}}},
                         {"code", Value{codeOf(declaration)}}};
}

Value findingValue(const Traffic& traffic, const ReplayFinding& f) {
    const bool domain = f.name.kind == Msrp::typeDomain;
    const auto [theirs, ours] = differenceText(pointerTo(f.theirs), pointerTo(f.ours));
    return State::Object{{"port", Value{traffic.ports[f.port]}},
                         {"attribute", Value{f.name.kind == Msrp::typeListener ? "listener"
                                             : domain                          ? "domain"
                                                                               : "talker"}},
                         {"stream", domain ? Value{} : Value{State::hexText(f.name.key)}},
                         {"class", domain ? Value{f.name.key} : Value{}},
                         {"from", Value{inSeconds(f.from)}},
                         {"to", f.to ? Value{inSeconds(*f.to)} : Value{}},
                         {"bridge", sideValue(f.theirs, theirs)},
                         {"ours", sideValue(f.ours, ours)},
                         {"reason", textOrNull(f.reason)},
                         {"text", Value{findingText(traffic, f)}}};
}

Value fileValue(const TrafficFile& file) {
    const auto& broken = file.capture.broken;
    return State::Object{{"name", Value{file.name}},
                         {"format", textOrNull(file.capture.format)},
                         {"octets", Value{std::uint64_t{file.octets}}},
                         {"frames", Value{std::uint64_t{file.capture.frames}}},
                         {"brokenAt", broken ? Value{std::uint64_t{broken->at}} : Value{}},
                         {"problem", broken ? Value{broken->why} : Value{}}};
}

std::string brokenText(const TrafficFile& file) {
    return concat(file.name, ": broken at octet ", file.capture.broken->at, ": ", file.capture.broken->why,
                  "; ", quantity(file.capture.frames, "frame"), " before it");
}

std::size_t sum(const ReplayResult& result, std::size_t ReplayPort::*member) {
    std::size_t all = 0;
    for (const ReplayPort& port : result.ports) all += port.compared ? port.*member : 0;
    return all;
}

bool wasCompared(const ReplayResult& result) {
    return result.comparedFrom && result.span >= *result.comparedFrom + result.tolerance &&
           std::ranges::any_of(result.ports, &ReplayPort::compared);
}

std::string verdictText(const ReplayResult& result) {
    const std::size_t attributes = sum(result, &ReplayPort::attributes);
    const std::size_t findings = result.findings.size() + result.moreFindings;
    std::string out;
    if (!wasCompared(result)) {
        out = concat("nothing could be compared for as long as ", spanText(result.tolerance));
    } else if (findings > 0) {
        out = concat(quantity(findings, "difference"), " of more than ", spanText(result.tolerance), " in ",
                     quantity(attributes, "attribute"));
    } else {
        out = concat("the bridge and ours agree on ", quantity(attributes, "attribute"));
    }
    if (result.brief > 0)
        out += concat("; ", quantity(result.brief, "brief difference"), ", the longest of ",
                      spanText(result.longestBrief));
    return out;
}

/// What was met in the files besides what was looked for.
std::vector<std::string> remarks(const Traffic& traffic, const ReplayResult& result) {
    std::vector<std::string> all = result.notes;
    const auto counted = [&](std::uint64_t n, const char* what) {
        if (n > 0) all.push_back(concat(n, what));
    };
    counted(traffic.others, " frames of other protocols were left out");
    counted(traffic.tagged, " MSRP frames have a VLAN tag, which they should not");
    counted(traffic.cut, " MSRP frames are in the capture in part only");
    counted(traffic.missing, " frames are missing by what the capture says");
    return all;
}

}  // namespace

bool agrees(const Traffic& traffic, const ReplayResult& result) {
    return wasCompared(result) && result.findings.empty() &&
           std::ranges::none_of(traffic.files,
                                [](const auto& file) { return file.capture.broken.has_value(); });
}

std::string findingText(const Traffic& traffic, const ReplayFinding& f) {
    const auto [theirs, ours] = differenceText(pointerTo(f.theirs), pointerTo(f.ours));
    std::string out = concat(traffic.ports[f.port], ' ', nameText(f.name), ", from ", spanText(f.from), ' ',
                             f.to ? "for " + spanText(*f.to - f.from) : std::string{"to the end"},
                             ": the bridge declares ", theirs, ", ours ", ours);
    if (!f.reason.empty()) out += "; ours: " + f.reason;
    const std::uint64_t code = codeOf(f.theirs);
    if (code != 0 && code != codeOf(f.ours))
        out += concat("; code ", code, " says: ", Show::failureText(code).why);
    return out;
}

std::string replayText(const Traffic& traffic, const ReplayResult& result) {
    const std::vector<PortRow> rows = rowsOf(traffic, result);
    std::string out = Show::Table{replayColumns, 1, rows}.text() + '\n';
    for (const ReplayFinding& finding : result.findings) out += findingText(traffic, finding) + '\n';
    if (result.moreFindings > 0) out += concat("and ", result.moreFindings, " more\n");
    out += concat(verdictText(result), " (", quantity(traffic.frames.size(), "frame"), " in ",
                  spanText(result.span), ")\n");
    for (const std::string& remark : remarks(traffic, result)) out += "note: " + remark + '\n';
    for (const TrafficFile& file : traffic.files) {
        if (file.capture.broken) out += brokenText(file) + '\n';
    }
    return out;
}

Value replayValue(const Traffic& traffic, const ReplayResult& result) {
    std::vector<Value> files;
    for (const TrafficFile& file : traffic.files) files.push_back(fileValue(file));
    std::vector<Value> findings;
    for (const ReplayFinding& finding : result.findings) findings.push_back(findingValue(traffic, finding));
    std::vector<Value> notes;
    for (const std::string& remark : remarks(traffic, result)) notes.emplace_back(remark);
    State::Object ports;
    for (const PortRow& row : rowsOf(traffic, result)) {
        State::Object port{{"compared", Value{row.port.compared}}};
        for (const auto& column : replayColumns) {
            if (!column.name.empty()) port.emplace_back(column.name, column.cell(row));
        }
        ports.emplace_back(row.name, std::move(port));
    }
    return State::Object{
        {"agrees", Value{agrees(traffic, result)}},
        {"bridge", Value{result.bridge.text()}},
        {"files", numbered(std::move(files))},
        {"frames", Value{std::uint64_t{traffic.frames.size()}}},
        {"seconds", Value{inSeconds(result.span)}},
        {"comparedFrom", result.comparedFrom ? Value{inSeconds(*result.comparedFrom)} : Value{}},
        {"tolerance", Value{inSeconds(result.tolerance)}},
        {"ports", std::move(ports)},
        {"findings", numbered(std::move(findings))},
        {"moreFindings", Value{std::uint64_t{result.moreFindings}}},
        {"brief", Value{std::uint64_t{result.brief}}},
        {"longestBrief", Value{inSeconds(result.longestBrief)}},
        {"others", Value{std::uint64_t{traffic.others}}},
        {"tagged", Value{std::uint64_t{traffic.tagged}}},
        {"cut", Value{std::uint64_t{traffic.cut}}},
        {"missing", Value{traffic.missing}},
        {"notes", numbered(std::move(notes))}};
}

AnnotatedFile::AnnotatedFile(const std::vector<std::string>& ports, Write write) : write_{std::move(write)} {
    write_(Pcapng::sectionHeader());
    for (const std::string& port : ports) {
        write_(Pcapng::interfaceDescription(port));
        write_(Pcapng::interfaceDescription(port + " (msrpsim)"));
    }
}

void AnnotatedFile::add(const Annotated& frame) {
    write_(Pcapng::enhancedPacket(
        {.interface = static_cast<std::uint32_t>(2 * frame.port + (frame.ours ? 1 : 0)),
         .time = frame.time,
         .direction = frame.sent ? Pcapng::Direction::outbound : Pcapng::Direction::inbound,
         .frame = frame.octets,
         .onWire = frame.onWire,
         .comment = frame.comment}));
}

}  // namespace Plan
