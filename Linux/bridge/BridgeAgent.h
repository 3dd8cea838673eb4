/// Keeps the records of bridging true: the bridge's address and priority, its ports with their states and
/// VLANs, and whether a spanning tree decides about them.
///
/// Where the bridge keeps several spanning trees, each instance is a topology; and a VLAN whose own state was
/// ever other than forwarding on some port has one from then on.
///
/// A bridge that comes late, goes or returns, a port that joins, leaves or is renamed, VLAN filtering that is
/// switched on: in every case what the kernel tells is made into one value (`BridgeFacts`), once for however
/// many messages a turn of the loop brings, and the records are brought in line with it.
#pragma once

#include "Linux/bridge/BridgeRecords.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/records/Config.h"
#include "Runtime/Loop.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace Linux {

/// `bridge` has settings by which each port carries only its VLANs.
[[nodiscard]] bool filtersVlans(const Device& bridge);

class BridgeAgent {
public:
    /// `config` names the bridge.  Loop and channel outlive the agent; `devices` is used no longer than it
    /// lives.
    BridgeAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests,
                std::shared_ptr<const Config> config, std::shared_ptr<Bridging::Config> bridging,
                std::shared_ptr<Bridging::Topology::Config> topology, std::shared_ptr<Stp::Status> stp,
                Complaint complaint = {});

    /// Has the records true when it returns, and keeps them so, if `devices` was started before.  Empty on
    /// success.
    std::string start(int queueBytes = DeviceTable::defaultQueueBytes);

    /// Null unless a device of that name exists and is a bridge.
    [[nodiscard]] const Device* bridge() const;
    /// What the kernel has told of the ports' VLANs, while the bridge filters them.
    [[nodiscard]] const VlanTable& vlans() const { return vlans_; }
    /// Takes in what the kernel has told until now; false when there is more than can be taken in at once.
    bool catchUp() { return notices_.drain(); }
    /// `changed` is called when the bridge, its ports or their VLANs have changed.
    void onVlans(std::function<void()> changed) { changed_ = std::move(changed); }

private:
    void deviceChanged(const Device* before, const Device* now);
    void vlanNotice(const nlmsghdr& message);
    void settle();
    /// What is wrong; empty when the table is good.
    std::string readVlans();
    /// Notes which VLANs have states of their own; with an instance for each, the kernel says which follow
    /// it.
    void followTrees(const Device& bridge);
    void complain(std::set<std::string> wrong);

    Runtime::FdLoop& loop_;
    const DeviceTable& devices_;
    NetlinkChannel& requests_;
    const std::shared_ptr<const Config> config_;
    const BridgeRecords records_;
    const Complaint complaint_;
    std::function<void()> changed_;
    NetlinkNotices notices_;
    Runtime::Timer settle_;
    VlanTable vlans_;  ///< of the bridge's ports, while it filters VLANs
    bool vlansStale_ = true;
    VlanTrees trees_;
    /// Of the states of instances, the kernel does not tell.
    Runtime::Timer look_;
    Runtime::Duration lookTook_{};
    std::optional<BridgeFacts> onRecord_;
    std::set<std::string> complained_;  ///< what is wrong and was said
};

}  // namespace Linux
