/// What has to be asked of the kernel so that a port's fence is as it should be.
#pragma once

#include "Linux/fence/FenceRules.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/queues/QueuePlan.h"
#include "Linux/queues/TrafficFilters.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Linux {

/// Of the fence's filter: before those that sort frames by their priority (`ingressPreference`).
inline constexpr std::uint16_t fencePreference = 32;

/// What the kernel holds of one port's fence.
struct FencePlace {
    std::optional<Qdisc> ingress;  ///< what holds the filters of incoming packets
    std::vector<Filter> filters;   ///< where ours would be

    /// As PortQueues::take.
    void take(const nlmsghdr& message);
    bool operator==(const FencePlace&) const = default;
};

/// Reads it; on an error `place` is as before.
[[nodiscard]] NetlinkAnswer readFence(NetlinkChannel& kernel, unsigned ifindex, FencePlace& place);

/// What our filter there does; nothing where there is none.
std::optional<FenceRules> fenceOf(const FencePlace& have);

/// The filter that has that program do its work on a port.
Filter fenceFilter(unsigned ifindex, FrameProgram program);

/// The steps from what there is to that filter, or to none.  One that is there is changed into the other
/// without a moment between.
std::vector<QueueStep> planFence(unsigned ifindex, const std::optional<Filter>& wanted,
                                 const FencePlace& have);

}  // namespace Linux
