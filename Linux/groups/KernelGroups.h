/// One bridge's multicast table, kept as the kernel has it: read once, then followed by notifications and by
/// the answers to our own requests.
#pragma once

#include "Linux/groups/GroupTable.h"
#include "Linux/kernel/Netlink.h"
#include "Runtime/Loop.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Linux {

class KernelGroups {
public:
    using OwnerOf = std::function<GroupOwner(unsigned bridge, const GroupEntry& entry)>;
    /// An entry came, went (no `now`) or changed hands, and not by a request of ours.  Called when `table`
    /// has taken it in.
    using Changed = std::function<void(const GroupMember& member, std::optional<GroupOwner> before,
                                       std::optional<GroupOwner> now)>;

    /// `loop` and `requests` must outlive it.  `routersChanged` is called when `routers` differs; `lost` when
    /// notifications were lost: read the table.
    KernelGroups(Runtime::FdLoop& loop, NetlinkChannel& requests, OwnerOf ownerOf, Changed changed,
                 std::function<void()> routersChanged, std::function<void()> lost);

    /// Begins to listen.  Empty on success.
    std::string start();
    /// The bridge's index, 0 for none.  Nothing is known of its table until it is read.
    void bridgeIs(unsigned bridge);
    /// Takes in the notifications that have come; false when there are more.
    bool drain() { return notices_.drain(); }
    /// Reads the kernel's table, and tells what differs from what this held.
    [[nodiscard]] NetlinkAnswer read();
    /// Whether the table was read to its end before.
    [[nodiscard]] bool known() const { return known_; }
    /// Ports of the bridge behind which the kernel takes a multicast router to be.
    [[nodiscard]] const std::set<unsigned>& routers() const { return routers_; }
    /// Entries that its switch chip had not taken when the table was read.
    [[nodiscard]] const std::set<GroupMember>& leftOut() const { return leftOut_; }

    /// For what our own requests did.
    GroupTable& table() { return table_; }
    [[nodiscard]] const GroupTable& table() const { return table_; }

private:
    void notice(const nlmsghdr& message);
    /// The kernel has that entry; nothing: it has none.
    void take(const GroupMember& member, std::optional<GroupOwner> now);

    Runtime::FdLoop& loop_;
    NetlinkChannel& requests_;
    const OwnerOf ownerOf_;
    const Changed changed_;
    const std::function<void()> routersChanged_;
    NetlinkNotices notices_;
    unsigned bridge_ = 0;
    bool known_ = false;
    GroupTable table_;
    std::set<unsigned> routers_;
    std::set<GroupMember> leftOut_;
};

}  // namespace Linux
