/// A bridge's multicast table as far as it is known: what was read from the kernel, followed by its
/// notifications and by the answers to our own requests.
#pragma once

#include "Linux/GroupMessage.h"
#include "Runtime/Time.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace Linux {

/// Whose an entry is.  Another's is never touched.
enum class GroupOwner : std::uint8_t { us, another };

/// An entry in the table.
struct HeldGroup {
    GroupMember member;
    GroupOwner owner = GroupOwner::another;
};

class GroupTable {
public:
    /// The kernel frees the place of a group some time after its last port left; until then it counts.
    static constexpr std::chrono::milliseconds linger{100};

    void put(const GroupMember& member, GroupOwner owner) { held_[member.group][member.port] = owner; }
    void erase(const GroupMember& member, Runtime::Time now);
    void clear() { held_.clear(); }

    /// Nothing when it is not in the table.
    [[nodiscard]] std::optional<GroupOwner> owner(const GroupMember& member) const;
    [[nodiscard]] bool contains(const Group& group) const { return held_.contains(group); }
    /// What goes by that address, in order.
    [[nodiscard]] std::vector<HeldGroup> of(EthAddr mac) const;
    [[nodiscard]] std::vector<HeldGroup> all() const;
    /// Groups in it, whoever made them.
    [[nodiscard]] std::size_t groups() const { return held_.size(); }
    /// Places that are taken, those included that the kernel may not have freed yet.
    [[nodiscard]] std::size_t placesTaken(Runtime::Time now);

private:
    std::map<Group, std::map<unsigned, GroupOwner>> held_;
    std::deque<Runtime::Time> emptied_;  ///< when groups lost their last port, lately
};

}  // namespace Linux
