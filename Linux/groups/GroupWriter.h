/// Carries out what a group agent has decided: asks the kernel to change the groups of its bridge, and keeps
/// what is known of the table and of the owners of its entries in line with the answers.
#pragma once

#include "Linux/groups/GroupOwnership.h"
#include "Linux/groups/KernelGroups.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"

#include <set>
#include <span>
#include <string>
#include <vector>

namespace Linux {

class GroupWriter {
public:
    /// What became of one request.
    struct Result {
        GroupReaction reaction;
        std::string problem;  ///< the kernel's, where it was not carried out
    };

    /// All references must outlive it.
    GroupWriter(Runtime::Loop& loop, DeviceTable& devices, NetlinkChannel& kernel, KernelGroups& groups,
                GroupOwnership& ownership)
        : loop_{loop}, devices_{devices}, kernel_{kernel}, groups_{groups}, ownership_{ownership} {}

    /// The bridge's index, 0 for none.
    void bridgeIs(unsigned bridge) { bridge_ = bridge; }
    /// The entries that are ours, as far as the table is known.
    [[nodiscard]] std::vector<GroupMember> ours() const;

    /// Adds, then deletes: a group that moves to another port has one all the time.  A result for each, those
    /// of `adds` first.
    std::vector<Result> carryOut(std::span<const GroupMember> adds, std::span<const GroupMember> deletes);
    /// Deletes entries whatever state the bridge is in; what went wrong.
    std::string remove(const std::vector<GroupMember>& members);
    /// Deletes all entries of ours, with `flush` where there are some that cannot be named; what went wrong.
    /// On success the bridge has none, and that is remembered.
    std::string removeAll();
    /// Deletes all entries of ours in one go, those included that cannot be named (`isStuck`); whether that
    /// went well.
    bool flush();
    /// Whether this kernel can do that, as far as it was tried.
    [[nodiscard]] bool flushes() const { return flushes_; }
    /// Flushes, and has those back that can be named; false where it cannot be done.
    bool flushStuck();

    /// Has the kernel keep groups again, and looks whether it does.
    NetlinkAnswer snoop();
    NetlinkAnswer tableSizeIs(std::uint32_t groups);

private:
    /// What the devices know of the bridge; null when it is none, or gone.
    [[nodiscard]] const BridgeSettings* settings() const;
    void forget(const GroupMember& member);

    Runtime::Loop& loop_;
    DeviceTable& devices_;
    NetlinkChannel& kernel_;
    KernelGroups& groups_;
    GroupOwnership& ownership_;
    unsigned bridge_ = 0;
    bool flushes_ = true;
};

}  // namespace Linux
