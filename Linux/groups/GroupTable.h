/// A bridge's multicast table as far as it is known: what was read from the kernel, followed by its
/// notifications and by the answers to our own requests.
#pragma once

#include "Linux/groups/GroupMessage.h"
#include "Runtime/Time.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace Linux {

/// Who made an entry: this agent (in this life or an earlier one), or anybody else, whose entries are left as
/// they are and fulfil our wishes as well.
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

    void put(const GroupMember& member, GroupOwner owner);
    void erase(const GroupMember& member, Runtime::Time now);
    void clear();

    /// Nothing when it is not in the table.
    [[nodiscard]] std::optional<GroupOwner> owner(const GroupMember& member) const;
    [[nodiscard]] bool contains(const Group& group) const { return held_.contains(group); }
    /// Whether the group has an entry of that owner.
    [[nodiscard]] bool has(const Group& group, GroupOwner owner) const;
    /// What goes by that address, in order.
    [[nodiscard]] std::vector<HeldGroup> of(EthAddr mac) const;
    [[nodiscard]] std::vector<HeldGroup> all() const;
    /// Groups in it, whoever made them.
    [[nodiscard]] std::size_t groups() const { return held_.size(); }
    /// Those of them that have an entry of another's, so that their places are not for us to give.
    [[nodiscard]] std::size_t othersGroups() const { return othersGroups_; }
    /// The largest number of groups since `forgetPeak`.
    [[nodiscard]] std::size_t peak() const { return peak_; }
    void forgetPeak() { peak_ = held_.size(); }
    /// Places that are taken, those included that the kernel may not have freed yet.
    [[nodiscard]] std::size_t placesTaken(Runtime::Time now);

private:
    using Ports = std::map<unsigned, GroupOwner>;

    std::map<Group, Ports> held_;
    std::size_t othersGroups_ = 0;
    std::size_t peak_ = 0;
    std::deque<Runtime::Time> emptied_;  ///< when groups lost their last port, lately
};

}  // namespace Linux
