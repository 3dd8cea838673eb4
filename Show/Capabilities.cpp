#include "Show/Capabilities.h"

#include "Show/Table.h"

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
    {"vlanFiltering", "VLANs of the bridge's ports"},
    {"groups", "forwarding by group address"},
    {"groupOwner", "a mark that tells our groups from others'"},
    {"ethtool", "changes of a link's speed"},
});

}  // namespace

std::string floodText(const Snapshot& snapshot) {
    const Value& groups = snapshot.record(groupsPath);
    std::string out;
    if (const std::string why = textOf(at(groups, {"flooded"})); !why.empty())
        out += "Every stream goes to every port: " + why + ".\n";
    for (const auto& [port, all] : membersOf(at(groups, {"routerPorts"})))
        out += "Every stream goes to " + port + " as well: a multicast router is taken to be there.\n";
    return out;
}

std::string capabilitiesText(const Snapshot& snapshot) {
    const Value& capabilities = snapshot.record(capabilitiesPath);
    Table kernel{{{"KERNEL", ""}, {"STATE", ""}, {"WHAT FOR", ""}}, 0};
    for (const auto& [name, meaning] : meanings)
        kernel.row({name, at(capabilities, {name}), Value{std::string{meaning}}});
    Table ports{{{"PORT", ""}, {"SHAPER", ""}, {"WHY NO BETTER", ""}, {"INCOMING PRIORITIES", ""}}, 0};
    for (const auto& [port, shaping] : membersOf(at(capabilities, {"shaping"}))) {
        const std::string problem = textOf(at(shaping, {"ingressProblem"}));
        ports.row({port, at(shaping, {"shaper"}), at(shaping, {"why"}),
                   Value{problem.empty() ? std::string{"choose the queue"} : problem}});
    }
    const Value& groups = snapshot.record(groupsPath);
    const auto number = [&](std::string_view field) { return std::to_string(numberOf(at(groups, {field}))); };
    std::string out = kernel.text();
    if (!ports.empty()) out += '\n' + ports.text();
    out += "\nGroups: " + number("programmed") + " of " + number("wanted") + " programmed, " +
           number("foreign") + " of them by others; the table holds " + number("tableUsed") + " of " +
           number("tableSize") + ".\n";
    const auto& failed = membersOf(at(groups, {"failed"}));
    for (const auto& [entry, why] : failed) out += "    not " + entry + ": " + textOf(why) + '\n';
    if (const auto missing = numberOf(at(groups, {"missing"})); missing > failed.size())
        out += "    and " + std::to_string(missing - failed.size()) + " others\n";
    return out + floodText(snapshot);
}

}  // namespace Show
