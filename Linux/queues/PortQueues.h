/// What the kernel holds of one port's queues and filters, leaving out what it put in by itself.
#pragma once

#include "Linux/kernel/Netlink.h"
#include "Linux/queues/TrafficControl.h"
#include "Linux/queues/TrafficFilters.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace Linux {

/// Where filters of incoming and outgoing packets hang.
inline constexpr std::uint32_t ingressFilters = TC_H_MAKE(TC_H_CLSACT, 0xFFF2U);
inline constexpr std::uint32_t egressFilters = TC_H_MAKE(TC_H_CLSACT, 0xFFF3U);
/// Preference of our filters of incoming packets, and of that of our own queues.  Those at other places are
/// others', however many they are, and are not even looked at.
inline constexpr std::uint16_t ingressPreference = 33;
inline constexpr std::uint16_t queuePreference = 1;

struct PortQueues {
    std::optional<Qdisc> root;
    std::optional<Qdisc> ingress;  ///< what holds the filters of incoming packets, and which is not a queue
    std::vector<Qdisc> children;
    std::vector<TokenBucketClass> classes;  ///< of "htb"
    std::vector<Filter> filters;            ///< that are where ours would be

    /// Takes in what an answer or a notification about this port says, or the request that the kernel carried
    /// out.
    void take(const nlmsghdr& message);

    /// Null where there is none.
    [[nodiscard]] const Qdisc* child(std::uint32_t parent) const;
    [[nodiscard]] const TokenBucketClass* findClass(std::uint32_t id) const;

    bool operator==(const PortQueues&) const = default;

private:
    void take(const Qdisc& qdisc, bool deleted);
    void take(const TokenBucketClass& change, bool deleted);
    void take(const Filter& filter, bool deleted);
    /// Forgets the root with all that went with it.
    void rootDel();
};

/// The device that a message about queues or filters concerns; 0: it is about something else.
unsigned queueDevice(const nlmsghdr& message);

/// Reads what a device has; of a root with another major number than `major` only that it is there.  On an
/// error `queues` is as before.
[[nodiscard]] NetlinkAnswer readQueues(NetlinkChannel& kernel, unsigned ifindex, std::uint16_t major,
                                       PortQueues& queues);
/// Whether a device has filters of incoming or outgoing packets, whosever they are; also when that could not
/// be found out.
[[nodiscard]] bool hasFilters(NetlinkChannel& kernel, unsigned ifindex);

}  // namespace Linux
