#include "Show/Top.h"

#include "Msrp/types/Census.h"
#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

constexpr std::string_view topStatusPath = "msrp/status";
constexpr std::string_view topCensusPath = "msrp/census";
constexpr std::string_view topTrafficPath = "linux/traffic";
constexpr std::string_view topGroupsPath = "bridging/input/config/msrp";
constexpr std::size_t topPorts = 0;
constexpr std::size_t topStreams = 1;
constexpr std::array<std::array<std::string_view, 4>, 2> topSortings{
    {{"name", "use", "allowed", "state"}, {"number", "kbps", "newest", "failed first"}}};

/// Title, heading and help.
constexpr std::size_t frameRows = 3;

/// Writes what stands somewhere below a record.
void putPiece(Snapshot& snapshot, const Piece& piece, Value value) {
    Value* at = &snapshot.records[piece.record];
    for (const std::string& name : piece.below) {
        if (at->object() == nullptr) *at = Value{State::Object{}};
        auto& members = std::get<State::Object>(at->data);
        auto found = std::ranges::find(members, name, &State::Object::value_type::first);
        if (found == members.end()) found = members.insert(found, {name, Value{}});
        at = &found->second;
    }
    *at = std::move(value);
}

struct TopPortClass {
    std::string port;
    std::string link;
    std::string speed;
    std::string srClass;
    std::string state;
    U64 used = 0;
    U64 allowed = 0;
    std::size_t bar = 0;
};

/// "[###-------]": what is used of all that is allowed.
std::string barText(const TopPortClass& row) {
    if (row.allowed == 0) return '[' + std::string(row.bar, ' ') + ']';
    const U64 used = std::min(row.used, row.allowed);
    U64 columns = used * row.bar / row.allowed;
    // What is not nothing is seen, and so is that something is left.
    if (used != 0) columns = std::max<U64>(columns, 1);
    return '[' + std::string(columns, '#') + std::string(row.bar - columns, '-') + ']';
}

/// Where nothing is left, more waits or will have to.
Mood barMood(const Value& cell) {
    const std::string bar = textOf(cell);
    if (bar.find('#') == std::string::npos) return Mood::plain;
    return bar.find('-') == std::string::npos ? Mood::waits : Mood::good;
}

const Column<TopPortClass> topPortColumns[]{
    {"PORT", "", [](const auto& r) { return r.port; }},
    {"LINK", "", [](const auto& r) { return textOrNone(r.link); }, cellText, wordMood},
    {"SPEED", "", [](const auto& r) { return textOrNone(r.speed); }},
    {"CLASS", "", [](const auto& r) { return r.srClass; }},
    {"STATE", "", [](const auto& r) { return textOrNone(r.state); }, cellText, wordMood},
    {"USED (#) OF ALLOWED (-)", "", [](const auto& r) { return barText(r); }, cellText, barMood},
    {"KBPS", "", [](const auto& r) { return std::to_string(r.used) + '/' + std::to_string(r.allowed); }},
};

std::vector<TopPortClass> topPortClasses(const Snapshot& snapshot, std::size_t bar) {
    std::vector<TopPortClass> rows;
    for (const std::string& port : enabledPorts(snapshot)) {
        const Value& link = at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port});
        for (const Msrp::SrClassId srClass : {Msrp::SrClassId::SrClassA, Msrp::SrClassId::SrClassB}) {
            Msrp::AdmissionRequest share = portShare(snapshot, port);
            share.srClass = srClass;
            const bool classA = srClass == Msrp::SrClassId::SrClassA;
            rows.push_back(
                {.port = port,
                 .link = textOf(at(link, {"linkStatus"})),
                 .speed = textOf(at(link, {"speedEnum"})),
                 .srClass = {classLetter(srClass)},
                 .state = textOf(at(snapshot.record(topStatusPath),
                                    {"intfStatus", port, "srClassState", State::enumText(srClass)})),
                 .used = classA ? share.allocatedA : share.allocatedB,
                 .allowed = Msrp::allowedForClass(share),
                 .bar = bar});
        }
    }
    return rows;
}

struct TopStreamRow {
    std::string stream;
    std::string from{};
    std::string srClass{};
    Value kbps{};
    Value flowing{};
    std::string state{};
    Value age{};
    std::string where{};
};

const Column<TopStreamRow> topStreamColumns[]{
    {"STREAM", "", [](const auto& r) { return r.stream; }},
    {"FROM", "", [](const auto& r) { return textOrNone(r.from); }},
    {"CLASS", "", [](const auto& r) { return textOrNone(r.srClass); }},
    {"KBPS", "", [](const auto& r) { return r.kbps; }},
    {"FLOWING", "", [](const auto& r) { return r.flowing; }},
    {"AGE", "", [](const auto& r) { return r.age; }, ageCell},
    {"STATE", "", [](const auto& r) { return textOrNone(r.state); }, cellText, wordMood},
    {"WHERE", "", [](const auto& r) { return textOrNone(r.where); }},
};

/// How long it has waited, and behind whom, is in a record that has all who wait; so this is left out here.
std::string withoutWait(const std::string& reason, const std::optional<WaitReport>& wait) {
    const std::string said = wait ? waitText(*wait) : std::string{};
    return reason.ends_with(said) ? reason.substr(0, reason.size() - said.size()) : reason;
}

/// How it stands, in the census's words, and to which ports it goes or not.
void judgeStream(const StreamReport& stream, TopStreamRow& row) {
    std::string to;
    std::string notTo;
    std::size_t asked = 0;
    std::size_t carried = 0;
    bool waits = stream.wait.has_value();
    for (const StreamPortReport& port : stream.ports) {
        waits = waits || port.wait;
        if (port.carried) to += (to.empty() ? "to " : ", ") + port.name;
        const bool asks = !port.listener.empty() && port.listener != "Ignore";
        if (!port.carried && asks)
            notTo +=
                (notTo.empty() ? "not to " : ", ") + port.name + ": " + withoutWait(port.reason, port.wait);
        asked += asks || port.carried ? 1 : 0;
        carried += port.carried ? 1 : 0;
    }
    if (stream.from.empty()) {
        row.state = "no talker";
    } else if (!stream.failure.empty()) {
        row.state = "talker failed";
        notTo = withoutWait(stream.failure, stream.wait);
    } else if (asked == 0) {
        row.state = "offered";
    } else if (carried == asked) {
        row.state = "reserved";
    } else {
        row.state = carried > 0 ? "partly reserved" : waits ? "waits" : "refused";
    }
    row.where = to + (to.empty() || notTo.empty() ? "" : "; ") + notTo;
}

bool failedAnywhere(const Value& stream) {
    return std::ranges::any_of(membersOf(at(stream, {"talkerFailureCode"})),
                               [](const auto& code) { return numberOf(code.second) != 0; });
}

}  // namespace

std::string Piece::path() const {
    std::string path = record;
    for (const std::string& name : below) path += '/' + name;
    return path;
}

std::size_t Top::count() const {
    return subject_ == Subject::streams ? streams_.size() : 2 * enabledPorts(snapshot_).size();
}

std::size_t Top::bodyRows() const { return std::max(rows_, frameRows + 1) - frameRows; }

std::size_t Top::first() const {
    const std::size_t last = count() - std::min(count(), bodyRows());
    return std::min(first_[static_cast<std::size_t>(subject_)], last);
}

std::vector<Piece> Top::pieces() const {
    const std::string status{topStatusPath};
    std::vector<Piece> all{
        {std::string{topCensusPath}}, {"history/events", {"next"}}, {"msrp/config"},
        {"msrp/cliConfig"},           {status, {"intfStatus"}},     {"interface/status/eth/phy/all"}};
    if (subject_ == Subject::ports) return all;
    all.push_back({"bridging/config", {"bridgeMac"}});
    all.push_back({"bridging/config", {"switchIntfConfig"}});
    all.push_back({"linux/config"});
    const std::size_t end = std::min(first() + bodyRows(), streams_.size());
    for (std::size_t i = first(); i < end; ++i) {
        const Listed& stream = streams_[i];
        const std::string id = State::hexText(stream.id);
        all.push_back({status, {"registeredStreams", id}});
        all.push_back({std::string{topGroupsPath},
                       {"fdbConfig", std::to_string(stream.vlan), "ethGroup", stream.address}});
        all.push_back({"switch/refusals", {"group", stream.group}});
        all.push_back({std::string{topTrafficPath}, {"stream", id, "kbps"}});
    }
    return all;
}

void Top::valuesAre(const std::vector<Piece>& pieces, std::vector<Value> values, double now) {
    snapshot_ = {.now = now, .records = {}};
    for (std::size_t i = 0; i < pieces.size() && i < values.size(); ++i) {
        if (!values[i].isNull()) putPiece(snapshot_, pieces[i], std::move(values[i]));
    }
}

Value Top::happened() const {
    return State::Object{{"census", snapshot_.record(topCensusPath)},
                         {"events", snapshot_.record("history/events")}};
}

bool Top::wantsList() const { return subject_ == Subject::streams && (!listed_ || listedAt_ != happened()); }

void Top::listIs(const Value& all) {
    streams_.clear();
    for (const auto& [key, stream] : membersOf(all)) {
        const auto id = State::parseHex(key);
        if (!id) continue;
        const std::string from = textOf(at(stream, {"ingressIntf"}));
        const U64 vlan = numberOf(at(stream, {"vlanId"}));
        const std::string address = textOf(at(stream, {"macDa"}));
        streams_.push_back(
            {.id = *id,
             .kbps = numberOf(at(stream, {"bandwidth"})),
             .since = State::Codec<double>::decode(at(stream, {"statusTime", from})).value_or(0.0),
             .failed = failedAnywhere(stream),
             .group = std::to_string(vlan) + '-' + address,
             .vlan = vlan,
             .address = address});
    }
    listed_ = true;
    listedAt_ = happened();
    sort();
}

void Top::sort() {
    const auto by = [this](auto&& before) { std::ranges::stable_sort(streams_, before); };
    by([](const Listed& a, const Listed& b) { return a.id < b.id; });
    if (sorting_[topStreams] == 1) by([](const Listed& a, const Listed& b) { return a.kbps > b.kbps; });
    if (sorting_[topStreams] == 2) by([](const Listed& a, const Listed& b) { return a.since > b.since; });
    if (sorting_[topStreams] == 3) by([](const Listed& a, const Listed& b) { return a.failed && !b.failed; });
}

Top::Asked Top::typed(std::string_view keys) {
    constexpr auto codes = std::to_array<std::pair<std::string_view, char>>({{"\x1b[A", 'k'},
                                                                             {"\x1bOA", 'k'},
                                                                             {"\x1b[B", 'j'},
                                                                             {"\x1bOB", 'j'},
                                                                             {"\x1b[5~", 'b'},
                                                                             {"\x1b[6~", ' '},
                                                                             {"\x1b[H", 'g'},
                                                                             {"\x1b[F", 'G'}});
    Asked asked = Asked::nothing;
    while (!keys.empty()) {
        const auto* code =
            std::ranges::find_if(codes, [&](const auto& c) { return keys.starts_with(c.first); });
        const char key = code != codes.end() ? code->second : keys.front();
        keys.remove_prefix(code != codes.end() ? code->first.size() : 1);
        auto& to = first_[static_cast<std::size_t>(subject_)];
        const std::size_t here = first();
        asked = Asked::page;
        switch (key) {
            case 'q':
            case 'Q':
                return Asked::end;
            case 'p':
                subject_ = Subject::ports;
                break;
            case 't':
                subject_ = Subject::streams;
                break;
            case 's':
                sorting_[static_cast<std::size_t>(subject_)] =
                    (sorting_[static_cast<std::size_t>(subject_)] + 1) % topSortings[0].size();
                to = 0;
                sort();
                break;
            case 'j':
                to = here + 1;
                break;
            case 'k':
                to = here - std::min<std::size_t>(here, 1);
                break;
            case ' ':
                to = here + bodyRows();
                break;
            case 'b':
                to = here - std::min(here, bodyRows());
                break;
            case 'g':
                to = 0;
                break;
            case 'G':
                to = count();
                break;
            default:
                break;
        }
        to = std::min(to, count());
    }
    return asked;
}

std::string Top::title() const {
    const Value& census = at(snapshot_.record(topCensusPath), {"streams"});
    std::string standings;
    for (const auto& known : Msrp::streamStandingNames) {
        constexpr std::array<std::string_view, 6> names{"without talker", "talker failed",   "offered",
                                                        "reserved",       "partly reserved", "refused"};
        const U64 number = numberOf(at(census, {known.name}));
        if (number != 0)
            standings += ", " + std::to_string(number) + ' ' +
                         std::string{names[static_cast<std::size_t>(known.value)]};
    }
    const std::size_t enabled = enabledPorts(snapshot_).size();
    const U64 total = sumOf(census);
    return std::to_string(enabled) + (enabled == 1 ? " port, " : " ports, ") + std::to_string(total) +
           (total == 1 ? " stream" : " streams") + standings;
}

std::string Top::help() const {
    const auto subject = static_cast<std::size_t>(subject_);
    const std::size_t end = std::min(first() + bodyRows(), count());
    const std::string shown = std::to_string(std::min(first() + 1, end)) + '-' + std::to_string(end) +
                              " of " + std::to_string(count());
    if (!keys_) return end - std::min(first(), end) < count() ? shown : "";
    return "q ends  " + std::string{subject_ == Subject::ports ? "t streams" : "p ports"} +
           "  s sorts: " + std::string{topSortings[subject][sorting_[subject]]} +
           "  arrows, PgUp, PgDn: " + shown;
}

std::string Top::portsText(const Page& page) const {
    constexpr std::size_t least = 10;
    constexpr std::size_t most = 60;
    constexpr std::size_t others = 60;  // which the other columns take, most of the time
    const std::size_t width = page.width == 0 ? 80 : page.width;
    std::vector<TopPortClass> rows =
        topPortClasses(snapshot_, std::clamp(width - std::min(width, others), least, most));
    const auto by = [&rows](auto&& before) { std::ranges::stable_sort(rows, before); };
    if (sorting_[topPorts] == 1) {
        by([](const TopPortClass& a, const TopPortClass& b) {
            // The share of what is allowed that is used, without a division by nothing.
            return a.used * std::max<U64>(b.allowed, 1) > b.used * std::max<U64>(a.allowed, 1);
        });
    }
    if (sorting_[topPorts] == 2)
        by([](const TopPortClass& a, const TopPortClass& b) { return a.allowed > b.allowed; });
    if (sorting_[topPorts] == 3)
        by([](const TopPortClass& a, const TopPortClass& b) {
            return wordMood(Value{a.state}) != Mood::good && wordMood(Value{b.state}) == Mood::good;
        });
    const std::size_t end = std::min(first() + bodyRows(), rows.size());
    rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(end), rows.end());
    rows.erase(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(std::min(first(), end)));
    return Table{topPortColumns, 0, rows}.text(page);
}

std::string Top::streamsText(const Page& page) const {
    std::vector<TopStreamRow> rows;
    const std::size_t end = std::min(first() + bodyRows(), streams_.size());
    for (std::size_t i = first(); i < end; ++i) {
        const Listed& listed = streams_[i];
        TopStreamRow& row = rows.emplace_back(TopStreamRow{.stream = streamName(listed.id)});
        const auto report = streamReport(snapshot_, listed.id);
        if (!report) continue;
        row.from = report->from;
        row.srClass = report->srClass;
        row.kbps = Value{report->kbps};
        row.age = State::Codec<std::optional<double>>::encode(ageOrNone(report->age));
        row.flowing = at(snapshot_.record(topTrafficPath), {"stream", State::hexText(listed.id), "kbps"});
        judgeStream(*report, row);
    }
    return Table{topStreamColumns, 0, rows}.text(page);
}

std::string Top::text(const Page& given, const std::string& problem) const {
    Page page = given;
    page.cuts = page.width != 0;
    const auto line = [&](const std::string& text, Mood mood) {
        const std::string all = printable(text);
        return painted(std::string{page.cuts ? beginning(all, page.width) : all}, mood, page) + '\n';
    };
    const std::string last = help();
    return (problem.empty() ? line(title(), Mood::plain) : line(problem, Mood::bad)) +
           (subject_ == Subject::ports ? portsText(page) : streamsText(page)) +
           (last.empty() ? last : line(last, Mood::heading));
}

}  // namespace Show
