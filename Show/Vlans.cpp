#include "Show/Table.h"
#include "Show/Views.h"
#include "Switch/PortChoice.h"
#include "Switch/VlanSet.h"

#include <map>

namespace Show {

using State::Value;

namespace {

struct VlanRow {
    const Snapshot& snapshot;
    std::string port;
    VlanSet carries;
    const Value& mvrp = at(snapshot.record("mvrp/status"), {"intfStatus", port});
};

/// What the port carries, by VLAN and port in the record.
std::map<std::string, VlanSet> carried(const Snapshot& snapshot) {
    std::map<std::string, VlanSet> ports;
    for (const auto& [id, vlan] : membersOf(at(snapshot.record("bridging/config"), {"vlanConfig"}))) {
        const auto number = State::parseDecimal(id, VlanId::max);
        for (const auto& [port, member] : membersOf(at(vlan, {"intf"}))) ports[port].set(number.value_or(0));
    }
    for (const auto& [port, enabled] : membersOf(at(snapshot.record("mvrp/config"), {"intfEnable"}))) {
        if (port != everyPort) ports[port];
    }
    return ports;
}

std::string runs(const VlanRow& row) {
    if (!row.mvrp.isNull()) return "on";
    return chosen(at(row.snapshot.record("mvrp/config"), {"intfEnable"}), row.port) ? "no link" : "off";
}

std::string problem(const VlanRow& row) {
    return textOf(at(row.snapshot.record("bridging/vlans"), {"port", row.port, "problem"}));
}

const Column<VlanRow> vlanColumns[]{
    {"PORT", "port", [](const auto& r) { return r.port; }},
    {"CARRIES", "carries", [](const auto& r) { return textOrNone(vlanText(r.carries)); }},
    {"MVRP", "mvrp", [](const auto& r) { return runs(r); }},
    {"CONFIGURED", "fixed", [](const auto& r) { return textOrNone(textOf(at(r.mvrp, {"fixed"}))); }},
    {"ASKED FOR", "registered", [](const auto& r) { return textOrNone(textOf(at(r.mvrp, {"registered"}))); }},
    {"REFUSED", "refused", [](const auto& r) { return textOrNone(textOf(at(r.mvrp, {"refused"}))); }},
    {"DECLARED", "declared", [](const auto& r) { return textOrNone(textOf(at(r.mvrp, {"declared"}))); }},
    {"problem", [](const auto& r) { return textOrNone(problem(r)); }},
};

Notes notes(const VlanRow& row) {
    const std::string what = problem(row);
    return what.empty() ? Notes{} : Notes{{what, Mood::bad}};
}

Table vlanTable(const Snapshot& snapshot) {
    std::vector<VlanRow> rows;
    for (const auto& [port, vlans] : carried(snapshot))
        rows.push_back({.snapshot = snapshot, .port = port, .carries = vlans});
    return {vlanColumns, 1, rows, notes};
}

}  // namespace

const View& vlans() {
    static const View view{{"bridging/config", "bridging/vlans", "mvrp/config", "mvrp/status"},
                           [](const Snapshot& s, const Page& page) { return vlanTable(s).text(page); },
                           [](const Snapshot& s) { return vlanTable(s).value(); },
                           [] { return tableSchema(vlanColumns, 1); }};
    return view;
}

}  // namespace Show
