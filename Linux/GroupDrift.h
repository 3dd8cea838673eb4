/// Keeps two agents that undo each other's entries from doing so for ever.
#pragma once

#include "Linux/GroupMessage.h"
#include "Runtime/Time.h"

#include <chrono>
#include <map>
#include <vector>

namespace Linux {

class GroupDrift {
public:
    static constexpr std::size_t limit = 3;
    static constexpr std::chrono::minutes span{1};

    /// Somebody else changed what is ours.  True when that makes the entry one that is left alone.
    bool changed(const GroupMember& member, Runtime::Time now);
    /// Whether it changed `limit` times within a minute, the last time less than a minute ago.
    [[nodiscard]] bool leftAlone(const GroupMember& member, Runtime::Time now) const;
    /// Drops what is too old to matter.
    void review(Runtime::Time now);
    void clear() { changes_.clear(); }

private:
    std::map<GroupMember, std::vector<Runtime::Time>> changes_;  ///< at most `limit`, the latest
};

}  // namespace Linux
