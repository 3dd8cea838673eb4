#include "Show/BridgeNames.h"

#include "Show/Page.h"
#include "Switch/EthAddr.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

namespace Show {

using State::Value;

namespace {

constexpr std::size_t longestName = 64;

/// What others have written is shown on a terminal: no control characters, and not without end.
std::string shownName(std::string_view name) { return printable(beginning(name, longestName)); }

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// The address where an id of chassis or port is one.
std::optional<EthAddr> addressOf(const Value& id) {
    return textOf(at(id, {"type"})) == "mac" ? EthAddr::parse(textOf(at(id, {"value"}))) : std::nullopt;
}

/// The interfaces with their neighbours: one object for one of them, numbered objects for several.
std::vector<std::pair<std::string, const Value*>> interfacesOf(const Value& lldp) {
    std::vector<std::pair<std::string, const Value*>> found;
    const Value& all = at(lldp, {"lldp", "interface"});
    const auto add = [&](const Value& named) {
        for (const auto& [port, neighbour] : membersOf(named)) found.emplace_back(port, &neighbour);
    };
    const bool several = all.member("0") != nullptr;
    if (!several) add(all);
    if (several) {
        for (const auto& [place, one] : membersOf(all)) add(one);
    }
    return found;
}

}  // namespace

std::uint64_t bridgeAddress(std::uint64_t id) { return id & 0xffff'ffff'ffff; }

std::string bridgeIdText(std::uint64_t id) {
    char priority[8];
    std::snprintf(priority, sizeof priority, "%04x.", static_cast<unsigned>(id >> 48));
    return priority + EthAddr::fromNumber(bridgeAddress(id)).text();
}

std::string BridgeNames::read(std::string_view hosts) {
    std::map<std::uint64_t, std::string> found;
    for (std::size_t number = 1; !hosts.empty(); ++number) {
        const auto end = std::min(hosts.find('\n'), hosts.size());
        const std::string_view whole = hosts.substr(0, end);
        hosts.remove_prefix(std::min(end + 1, hosts.size()));
        const std::string_view line = trimmed(whole.substr(0, whole.find('#')));
        if (line.empty()) continue;
        const auto blank = std::min(line.find_first_of(" \t"), line.size());
        const auto address = EthAddr::parse(line.substr(0, blank));
        const std::string_view name = trimmed(line.substr(blank));
        if (!address || name.empty()) {
            return "line " + std::to_string(number) + ": \"" + shownName(line) +
                   "\" is not like \"00:11:22:33:44:55 name\"";
        }
        found.emplace(address->number(), shownName(name));
    }
    hosts_ = std::move(found);
    return {};
}

void BridgeNames::neighboursAre(const Value& lldp) {
    for (const auto& [port, neighbour] : interfacesOf(lldp)) {
        // By its name where it has told one, and else without.
        const Value& chassis = at(*neighbour, {"chassis"});
        const auto& members = membersOf(chassis);
        if (members.empty()) continue;
        const bool named = members.size() == 1 && members.front().first != "id";
        const Value& about = named ? members.front().second : chassis;
        const std::string name = named ? shownName(members.front().first) : std::string{};
        if (!name.empty()) behind_.emplace(port, name);
        for (const Value* id : {&at(about, {"id"}), &at(*neighbour, {"port", "id"})}) {
            const auto address = addressOf(*id);
            if (address && !name.empty()) neighbours_.emplace(std::pair{port, address->number()}, name);
        }
    }
}

std::string BridgeNames::of(std::uint64_t address, const std::string& port) const {
    if (const auto host = hosts_.find(address); host != hosts_.end()) return host->second;
    const auto neighbour = neighbours_.find({port, address});
    return neighbour != neighbours_.end() ? neighbour->second : std::string{};
}

std::string BridgeNames::behind(const std::string& port) const {
    const auto found = behind_.find(port);
    return found != behind_.end() ? found->second : std::string{};
}

std::string BridgeNames::bridge(std::uint64_t id, const std::string& port) const {
    const std::string name = of(bridgeAddress(id), port);
    return name.empty() ? bridgeIdText(id) : name + " (" + bridgeIdText(id) + ')';
}

}  // namespace Show
