#include "Linux/GroupDrift.h"

namespace Linux {

bool GroupDrift::changed(const GroupMember& member, Runtime::Time now) {
    const bool before = leftAlone(member, now);
    auto& times = changes_[member];
    if (times.size() == limit) times.erase(times.begin());
    times.push_back(now);
    return !before && leftAlone(member, now);
}

bool GroupDrift::leftAlone(const GroupMember& member, Runtime::Time now) const {
    const auto held = changes_.find(member);
    if (held == changes_.end() || held->second.size() < limit) return false;
    const auto& times = held->second;
    return times.back() - times.front() < span && now - times.back() < span;
}

void GroupDrift::review(Runtime::Time now) {
    std::erase_if(changes_, [&](const auto& entry) { return now - entry.second.back() >= span; });
}

}  // namespace Linux
