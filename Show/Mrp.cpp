#include "Show/Mrp.h"

#include "Msrp/types/Attributes.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Show/Views.h"

#include <array>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

constexpr std::array<std::string_view, 4> typeNames{"Talker Advertise", "Talker Failed", "Listener",
                                                    "Domain"};

std::string typeName(U64 type) {
    return type >= 1 && type <= typeNames.size() ? std::string{typeNames[type - 1]} : std::to_string(type);
}

std::string attributeName(U64 type, U64 key) {
    if (type != Msrp::typeDomain) return streamName(key);
    if (key == Msrp::number(Msrp::SrClassId::SrClassA)) return "class A";
    return key == Msrp::number(Msrp::SrClassId::SrClassB) ? "class B" : "class " + std::to_string(key);
}

/// What tells two values of one attribute apart at a glance; null for none.
Value valueText(U64 type, const Value& said) {
    if (said.isNull()) return {};
    if (type == Msrp::typeListener) {
        const auto state = static_cast<Msrp::ListenerState>(numberOf(at(said, {"declaration"})));
        return Value{State::enumText(state)};
    }
    const std::string octets = textOf(at(said, {"value"}));
    if (type == Msrp::typeDomain && octets.size() == 8) {
        const U64 fields = State::parseHex("0x" + octets).value_or(0);
        return Value{"priority " + std::to_string(fields >> 16 & 0xff) + " vid " +
                     std::to_string(fields & 0xffff)};
    }
    return Value{"yes"};
}

/// "Talker Advertise 3, Domain 2"
std::string countsText(const Value& counts) {
    std::string out;
    for (const auto& [type, count] : membersOf(counts)) {
        if (numberOf(count) == 0) continue;
        out += (out.empty() ? "" : ", ") + typeName(State::parseDecimal(type, 255).value_or(0)) + ' ' +
               std::to_string(numberOf(count));
    }
    return out.empty() ? "none" : out;
}

/// "JoinIn 5, Lv 1"
std::string eventsText(const Value& counts) {
    std::string out;
    for (const auto& [name, count] : membersOf(counts)) {
        if (numberOf(count) != 0)
            out += (out.empty() ? "" : ", ") + name + ' ' + std::to_string(numberOf(count));
    }
    return out.empty() ? "none" : out;
}

std::optional<U64> engineCount(const Value& record, std::string_view name) {
    return known<U64>(at(record, {name}));
}

std::string timerText(const Value& seconds) {
    return seconds.isNull() ? "not running" : "in " + spanCell(seconds);
}

struct EngineRow {
    std::string port;
    const Value& machines;
    const Value& counters;
};

const Column<EngineRow> engineColumns[]{
    {"PORT", "port", [](const auto& r) { return r.port; }},
    {"REGISTERED", "registered", [](const auto& r) { return sumOf(at(r.machines, {"registered"})); }},
    {"DECLARED", "declared", [](const auto& r) { return sumOf(at(r.machines, {"declared"})); }},
    {"REFUSED", "refused", [](const auto& r) { return engineCount(r.machines, "refused"); }},
    {"LEAVEALL IN", "leaveAllIn", [](const auto& r) { return known<double>(at(r.machines, {"leaveAllIn"})); },
     spanCell},
    {"RX FRAMES", "rxPdus", [](const auto& r) { return engineCount(r.counters, "rxPdus"); }},
    {"TX FRAMES", "txPdus", [](const auto& r) { return engineCount(r.counters, "txPdus"); }},
    {"MALFORMED", "malformed", [](const auto& r) { return sumOf(at(r.counters, {"malformed"})); }},
    {"DROPPED", "droppedPdus", [](const auto& r) { return engineCount(r.counters, "droppedPdus"); }},
};

std::string machinesPath(const std::string& port) { return mrpPath(port) + "/machines"; }

Table engineTable(const Snapshot& snapshot) {
    std::vector<EngineRow> rows;
    for (const auto& [port, counters] : membersOf(at(snapshot.record("mrp/status"), {"intf"}))) {
        const Value& machines = snapshot.record(machinesPath(port));
        if (!machines.isNull()) rows.push_back({port, machines, counters});
    }
    return {engineColumns, 1, rows};
}

std::vector<std::string> machinesOfPorts(const Snapshot& snapshot) {
    std::vector<std::string> paths;
    for (const auto& [port, counters] : membersOf(at(snapshot.record("mrp/status"), {"intf"})))
        paths.push_back(machinesPath(port));
    return paths;
}

struct AttributeRow {
    U64 type;
    U64 key;
    const Value& attribute;
};

/// For people; programs get the record itself.
const Column<AttributeRow> attributeColumns[]{
    {"TYPE", "", [](const auto& r) { return typeName(r.type); }},
    {"ATTRIBUTE", "", [](const auto& r) { return attributeName(r.type, r.key); }},
    {"APPLICANT", "", [](const auto& r) { return at(r.attribute, {"applicant"}); }},
    {"REGISTRAR", "", [](const auto& r) { return at(r.attribute, {"registrar"}); }},
    {"DECLARED", "", [](const auto& r) { return valueText(r.type, at(r.attribute, {"declared"})); }},
    {"REGISTERED", "", [](const auto& r) { return valueText(r.type, at(r.attribute, {"registered"})); }},
    {"REFUSED", "", [](const auto& r) { return at(r.attribute, {"refused"}); }},
    {"AGE", "", [](const auto& r) { return at(r.attribute, {"age"}); }, ageCell},
    {"LEAVE IN", "", [](const auto& r) { return at(r.attribute, {"leaveIn"}); }, spanCell},
};

}  // namespace

const View& engines() {
    static const View view{{"mrp/status", "linux/packets"},
                           [](const Snapshot& s, const Page& page) { return engineTable(s).text(page); },
                           [](const Snapshot& s) { return engineTable(s).value(); },
                           [] { return tableSchema(engineColumns, 1); },
                           machinesOfPorts};
    return view;
}

std::string mrpPath(const std::string& port) { return "mrp/attributes/intf/" + port; }

std::string mrpText(const Snapshot& snapshot, const std::string& port, const Page& page) {
    const Value& record = snapshot.record(mrpPath(port));
    const Value& machines = at(record, {"machines"});
    const Value& counters = at(snapshot.record("mrp/status"), {"intf", port});
    const Value& socket = at(snapshot.record("linux/packets"), {"intf", port});
    const auto digits = [](const Value& value, std::string_view field) {
        return std::to_string(numberOf(at(value, {field})));
    };
    std::vector<AttributeRow> rows;
    for (const auto& [name, attribute] : membersOf(at(record, {"attribute"}))) {
        const std::size_t slash = name.find('/');
        rows.push_back({State::parseDecimal(name.substr(0, slash), 255).value_or(0),
                        State::parseHex(name.substr(slash + 1)).value_or(0), attribute});
    }
    return facts({{"LeaveAll",
                   textOf(at(machines, {"leaveAll"})) + ", next " + timerText(at(machines, {"leaveAllIn"}))},
                  {"opportunity", timerText(at(machines, {"opportunityIn"}))},
                  {"leave timer", timerText(at(machines, {"leaveIn"}))},
                  {"registered", countsText(at(machines, {"registered"}))},
                  {"declared", countsText(at(machines, {"declared"}))},
                  {"frames", digits(counters, "rxPdus") + " received, " + digits(counters, "txPdus") +
                                 " sent, " + digits(counters, "droppedPdus") + " dropped, " +
                                 digits(socket, "receiveDropped") + " by the kernel"},
                  {"received", eventsText(at(counters, {"rxEvents"}))},
                  {"sent", eventsText(at(counters, {"txEvents"}))},
                  {"malformed", eventsText(at(counters, {"malformed"}))},
                  {"refused", digits(counters, "refusedJoins") + " joins, " +
                                  digits(counters, "rangeErrors") + " out of range, " +
                                  digits(counters, "droppedRegistrations") + " over the limit"}},
                 page) +
           (rows.empty() ? "" : Table{attributeColumns, 2, rows}.text(page));
}

}  // namespace Show
