#include "Show/Mrp.h"

#include "Msrp/types/Attributes.h"
#include "Show/StreamReport.h"

#include <array>
#include <cstdio>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

constexpr std::array<std::string_view, 4> typeNames{"Talker Advertise", "Talker Failed", "Listener",
                                                    "Domain"};

std::string typeName(U64 type) {
    return type >= 1 && type <= typeNames.size() ? std::string{typeNames[type - 1]} : std::to_string(type);
}

/// "7.3 s"; null for a timer that does not run.
Value spanValue(const Value& seconds) {
    const auto known = State::Codec<double>::decode(seconds);
    if (!known) return {};
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", *known);
    return Value{text};
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

U64 total(const Value& counts) {
    U64 sum = 0;
    for (const auto& [name, count] : membersOf(counts)) sum += numberOf(count);
    return sum;
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

std::string spanText(const Value& seconds) {
    const Value span = spanValue(seconds);
    return span.isNull() ? "not running" : "in " + textOf(span);
}

}  // namespace

std::string mrpPath(const std::string& port) { return "mrp/attributes/intf/" + port; }

Table mrpPorts(const Snapshot& snapshot) {
    Table table{{{"PORT", "port"},
                 {"REGISTERED", "registered"},
                 {"DECLARED", "declared"},
                 {"REFUSED", "refused"},
                 {"LEAVEALL IN", "leaveAllIn"},
                 {"RX FRAMES", "rxPdus"},
                 {"TX FRAMES", "txPdus"},
                 {"MALFORMED", "malformed"},
                 {"DROPPED", "droppedPdus"}},
                1};
    for (const auto& [port, counters] : membersOf(at(snapshot.record("mrp/status"), {"intf"}))) {
        const Value& machines = snapshot.record(mrpPath(port) + "/machines");
        if (machines.isNull()) continue;
        table.row({port, Value{total(at(machines, {"registered"}))}, Value{total(at(machines, {"declared"}))},
                   at(machines, {"refused"}), spanValue(at(machines, {"leaveAllIn"})),
                   at(counters, {"rxPdus"}), at(counters, {"txPdus"}),
                   Value{total(at(counters, {"malformed"}))}, at(counters, {"droppedPdus"})});
    }
    return table;
}

Table mrpAttributes(const Value& record) {
    Table table{{{"TYPE", "type"},
                 {"ATTRIBUTE", "attribute"},
                 {"APPLICANT", "applicant"},
                 {"REGISTRAR", "registrar"},
                 {"DECLARED", "declared"},
                 {"REGISTERED", "registered"},
                 {"REFUSED", "refused"},
                 {"AGE", "age"},
                 {"LEAVE IN", "leaveIn"}},
                2};
    for (const auto& [name, attribute] : membersOf(at(record, {"attribute"}))) {
        const std::size_t slash = name.find('/');
        const U64 type = State::parseDecimal(name.substr(0, slash), 255).value_or(0);
        const U64 key = State::parseHex(name.substr(slash + 1)).value_or(0);
        table.row({typeName(type), attributeName(type, key), at(attribute, {"applicant"}),
                   at(attribute, {"registrar"}), valueText(type, at(attribute, {"declared"})),
                   valueText(type, at(attribute, {"registered"})), at(attribute, {"refused"}),
                   ageText(State::Codec<double>::decode(at(attribute, {"age"})).value_or(-1.0)),
                   spanValue(at(attribute, {"leaveIn"}))});
    }
    return table;
}

std::string mrpText(const Snapshot& snapshot, const std::string& port) {
    const Value& record = snapshot.record(mrpPath(port));
    const Value& machines = at(record, {"machines"});
    const Value& counters = at(snapshot.record("mrp/status"), {"intf", port});
    const auto number = [&](std::string_view field) {
        return std::to_string(numberOf(at(counters, {field})));
    };
    std::string out;
    out += "LeaveAll     " + textOf(at(machines, {"leaveAll"})) + ", next " +
           spanText(at(machines, {"leaveAllIn"})) + '\n';
    out += "opportunity  " + spanText(at(machines, {"opportunityIn"})) + '\n';
    out += "leave timer  " + spanText(at(machines, {"leaveIn"})) + '\n';
    out += "registered   " + countsText(at(machines, {"registered"})) + '\n';
    out += "declared     " + countsText(at(machines, {"declared"})) + '\n';
    out += "frames       " + number("rxPdus") + " received, " + number("txPdus") + " sent, " +
           number("droppedPdus") + " dropped";
    const Value& socket = at(snapshot.record("linux/packets"), {"intf", port});
    out += ", " + std::to_string(numberOf(at(socket, {"receiveDropped"}))) + " by the kernel\n";
    out += "received     " + eventsText(at(counters, {"rxEvents"})) + '\n';
    out += "sent         " + eventsText(at(counters, {"txEvents"})) + '\n';
    out += "malformed    " + eventsText(at(counters, {"malformed"})) + '\n';
    out += "refused      " + number("refusedJoins") + " joins, " + number("rangeErrors") + " out of range, " +
           number("droppedRegistrations") + " over the limit\n";
    const Table table = mrpAttributes(record);
    return table.empty() ? out : out + table.text();
}

}  // namespace Show
