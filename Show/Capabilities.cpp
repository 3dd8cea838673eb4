#include "Show/Capabilities.h"

#include "Linux/records/CapabilityStatus.h"
#include "Show/Table.h"
#include "Show/Views.h"

#include <array>
#include <utility>

namespace Show {

using State::Value;

namespace {

constexpr auto meanings = std::to_array<std::pair<std::string_view, std::string_view>>({
    {"mqprio", "transmit queues by priority"},
    {"cbs", "shaping by credits"},
    {"htb", "shaping by token buckets"},
    {"bpf", "priorities to token buckets"},
    {"clsact", "filters of incoming frames"},
    {"flower", "priorities of incoming frames to queues"},
    {"ebpf", "a fence around the classes' queues"},
    {"vlanFiltering", "VLANs of the bridge's ports"},
    {"groups", "forwarding by group address"},
    {"groupOwner", "a mark that tells our groups from others'"},
    {"ethtool", "changes of a link's speed"},
});

using Meaning = std::pair<std::string_view, std::string_view>;
struct AbilityRow {
    const Value& capabilities;
    Meaning ability;
};

// For people; programs get the record itself.
const Column<AbilityRow> abilityColumns[]{
    {"KERNEL", "", [](const auto& r) { return r.ability.first; }},
    {"STATE", "", [](const auto& r) { return at(r.capabilities, {r.ability.first}); }, cellText, wordMood},
    {"WHAT FOR", "", [](const auto& r) { return r.ability.second; }},
};

using ShapedPort = std::pair<std::string, Value>;
const Column<ShapedPort> shapingColumns[]{
    {"PORT", "", [](const auto& r) { return r.first; }},
    {"SHAPER", "", [](const auto& r) { return at(r.second, {"shaper"}); }},
    {"WHY NO BETTER", "", [](const auto& r) { return at(r.second, {"why"}); }},
    {"INCOMING PRIORITIES", "",
     [](const auto& r) {
         const std::string problem = textOf(at(r.second, {"ingressProblem"}));
         return problem.empty() ? std::string{"choose the queue"} : problem;
     }},
};

const Column<ShapedPort> fenceColumns[]{
    {"PORT", "", [](const auto& r) { return r.first; }},
    {"PRIORITIES THAT BECOME 0", "",
     [](const auto& r) {
         std::string closed;
         for (const auto& [priority, set] : membersOf(at(r.second, {"closed"})))
             closed += (closed.empty() ? "" : ", ") + priority;
         return closed.empty() ? std::string{"none"} : closed;
     }},
    {"WHAT IS WRONG", "", [](const auto& r) { return at(r.second, {"problem"}); }},
};

constexpr std::string_view capabilitiesPath = "linux/capabilities";
constexpr std::string_view fencePath = "linux/fence";
constexpr std::string_view groupsPath = "linux/groups";

std::string groupsText(const Value& groups) {
    const auto number = [&](std::string_view field) { return std::to_string(numberOf(at(groups, {field}))); };
    std::string out = "Groups: " + number("programmed") + " of " + number("wanted") + " programmed, " +
                      number("foreign") + " of them by others; the table holds " + number("tableUsed") +
                      " of " + number("tableSize") + ".\n";
    const auto& failed = membersOf(at(groups, {"failed"}));
    for (const auto& [entry, why] : failed) out += "    not " + entry + ": " + textOf(why) + '\n';
    if (const auto missing = numberOf(at(groups, {"missing"})); missing > failed.size())
        out += "    and " + std::to_string(missing - failed.size()) + " others\n";
    return out;
}

std::string fenceText(const Value& fence, const Page& page) {
    const State::Object& ports = membersOf(at(fence, {"port"}));
    const std::string problem = textOf(at(fence, {"problem"}));
    return (ports.empty() ? "" : Table{fenceColumns, 0, ports}.text(page) + '\n') +
           (problem.empty() ? "" : "The fence does not tell streams apart: " + problem + ".\n\n");
}

std::string capabilitiesText(const Snapshot& snapshot, const Page& page) {
    const Value& capabilities = snapshot.record(capabilitiesPath);
    std::vector<AbilityRow> abilities;
    abilities.reserve(meanings.size());
    for (const Meaning& meaning : meanings) abilities.push_back({capabilities, meaning});
    const State::Object& ports = membersOf(at(capabilities, {"shaping"}));
    return Table{abilityColumns, 0, abilities}.text(page) + '\n' +
           (ports.empty() ? "" : Table{shapingColumns, 0, ports}.text(page) + '\n') +
           fenceText(snapshot.record(fencePath), page) + groupsText(snapshot.record(groupsPath)) +
           floodText(snapshot);
}

}  // namespace

const View& capabilities() {
    static const View view{{std::string{capabilitiesPath}, std::string{groupsPath}, std::string{fencePath}},
                           capabilitiesText,
                           [](const Snapshot& s) { return s.record(capabilitiesPath); },
                           [] { return State::schemaOf(Linux::CapabilityStatus{}); }};
    return view;
}

std::string floodText(const Snapshot& snapshot) {
    const Value& groups = snapshot.record(groupsPath);
    std::string out;
    if (const std::string why = textOf(at(groups, {"flooded"})); !why.empty())
        out += "Every stream goes to every port: " + why + ".\n";
    for (const auto& [port, all] : membersOf(at(groups, {"routerPorts"})))
        out += "Every stream goes to " + port + " as well: a multicast router is taken to be there.\n";
    return out;
}

}  // namespace Show
