#include "Linux/GroupTable.h"

namespace Linux {

void GroupTable::erase(const GroupMember& member, Runtime::Time now) {
    const auto group = held_.find(member.group);
    if (group == held_.end() || group->second.erase(member.port) == 0 || !group->second.empty()) return;
    held_.erase(group);
    emptied_.push_back(now);
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
