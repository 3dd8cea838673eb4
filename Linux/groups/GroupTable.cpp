#include "Linux/groups/GroupTable.h"

#include <algorithm>

namespace Linux {

namespace {

bool anyOf(const std::map<unsigned, GroupOwner>& ports, GroupOwner owner) {
    return std::ranges::any_of(ports, [owner](const auto& entry) { return entry.second == owner; });
}

}  // namespace

void GroupTable::put(const GroupMember& member, GroupOwner owner) {
    Ports& ports = held_[member.group];
    if (anyOf(ports, GroupOwner::another)) --othersGroups_;
    ports[member.port] = owner;
    if (anyOf(ports, GroupOwner::another)) ++othersGroups_;
    peak_ = std::max(peak_, held_.size());
}

void GroupTable::erase(const GroupMember& member, Runtime::Time now) {
    const auto group = held_.find(member.group);
    if (group == held_.end()) return;
    Ports& ports = group->second;
    if (anyOf(ports, GroupOwner::another)) --othersGroups_;
    ports.erase(member.port);
    if (anyOf(ports, GroupOwner::another)) ++othersGroups_;
    if (!ports.empty()) return;
    held_.erase(group);
    emptied_.push_back(now);
}

void GroupTable::clear() {
    held_.clear();
    othersGroups_ = peak_ = 0;
}

bool GroupTable::has(const Group& group, GroupOwner owner) const {
    const auto held = held_.find(group);
    return held != held_.end() && anyOf(held->second, owner);
}

std::optional<GroupOwner> GroupTable::owner(const GroupMember& member) const {
    const auto group = held_.find(member.group);
    if (group == held_.end()) return std::nullopt;
    const auto port = group->second.find(member.port);
    return port != group->second.end() ? std::optional{port->second} : std::nullopt;
}

std::vector<HeldGroup> GroupTable::of(EthAddr mac) const {
    std::vector<HeldGroup> found;
    for (auto at = held_.lower_bound(Group{mac, 0, {}}); at != held_.end() && at->first.mac == mac; ++at) {
        for (const auto& [port, owner] : at->second) found.push_back({{at->first, port}, owner});
    }
    return found;
}

std::vector<HeldGroup> GroupTable::all() const {
    std::vector<HeldGroup> all;
    for (const auto& [group, ports] : held_) {
        for (const auto& [port, owner] : ports) all.push_back({{group, port}, owner});
    }
    return all;
}

std::size_t GroupTable::placesTaken(Runtime::Time now) {
    while (!emptied_.empty() && emptied_.front() + linger <= now) emptied_.pop_front();
    return held_.size() + emptied_.size();
}

}  // namespace Linux
