/// Entries of ours on bridges that are not the switch, or not any more, and how they go.
///
/// They go in pieces.  What the kernel will not delete now (a bridge may be down, or filter VLANs meanwhile)
/// is kept, with the mark by which it is known, and tried again.
#pragma once

#include "Linux/groups/GroupMessage.h"
#include "Linux/groups/GroupOwnership.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Linux {

class StrayGroups {
public:
    /// Whether a daemon that runs has the bridge of that name.
    using Served = std::function<bool(const std::string& bridge)>;

    /// All references must outlive it.
    StrayGroups(const DeviceTable& devices, NetlinkChannel& kernel, GroupOwnership& ownership,
                const Served& served, Complaint complaint)
        : devices_{devices},
          kernel_{kernel},
          ownership_{ownership},
          served_{served},
          complaint_{std::move(complaint)} {}

    void put(unsigned bridge, std::vector<GroupMember> members);
    /// What is there is not stray any more.
    void drop(unsigned bridge) { bridges_.erase(bridge); }
    [[nodiscard]] bool has(unsigned bridge) const { return bridges_.contains(bridge); }
    /// Whether something can be done now.
    [[nodiscard]] bool due() const;
    /// Deletes some hundreds.
    void removeSome();
    /// What could not be deleted is due again.
    void retry();
    /// The entries that are still to go.
    void addTo(std::set<GroupMember>& members) const;

private:
    struct Bridge {
        std::vector<GroupMember> due;
        std::vector<GroupMember> failed;  ///< wait for `retry`
        bool flushed = false;             ///< those that cannot be named were tried
        bool told = false;                ///< that some could not be deleted
    };
    static bool isDue(const std::pair<const unsigned, Bridge>& entry);
    void removeSome(const Device& device, Bridge& bridge);
    void forget(unsigned index);

    const DeviceTable& devices_;
    NetlinkChannel& kernel_;
    GroupOwnership& ownership_;
    const Served& served_;
    const Complaint complaint_;
    std::map<unsigned, Bridge> bridges_;
};

}  // namespace Linux
