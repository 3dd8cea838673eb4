/// A port's queues as the kernel's messages tell of them and requests ask for them: queueing disciplines and
/// the classes of the token-bucket one.
///
/// What is read from an answer or a notification and what a request was made of compare equal when the kernel
/// did what it was asked for.
#pragma once

#include "Linux/kernel/NetlinkMessage.h"
#include "Linux/queues/Credits.h"

#include <array>
#include <cstdint>
#include <linux/pkt_sched.h>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Linux {

/// The identifier of a discipline (minor number 0) or class: "100:10" is queueId(0x100, 0x10).
constexpr std::uint32_t queueId(std::uint16_t major, std::uint16_t minor = 0) {
    return std::uint32_t{major} << 16 | minor;
}

/// "mqprio": traffic classes, each with transmit queues of its own, chosen by a packet's priority.
struct PriorityQueues {
    struct Range {
        std::uint16_t count = 0;
        std::uint16_t offset = 0;
        bool operator==(const Range&) const = default;
    };
    std::array<std::uint8_t, TC_QOPT_BITMASK + 1> classOf{};  ///< by priority
    std::vector<Range> queues;                                ///< by traffic class, at most 16
    bool hardware = false;
    bool operator==(const PriorityQueues&) const = default;
};

/// "cbs": shaped by credits.
struct CreditShaper {
    Credits credits;
    bool hardware = false;
    bool operator==(const CreditShaper&) const = default;
};

/// "htb": token buckets, in classes.
struct TokenBuckets {
    std::uint32_t defaultMinor = 0;  ///< class of what no filter gives one
    bool operator==(const TokenBuckets&) const = default;
};

/// "pfifo"
struct FrameFifo {
    std::uint32_t limit = 0;  ///< frames
    bool operator==(const FrameFifo&) const = default;
};

struct Qdisc {
    unsigned ifindex = 0;
    std::uint32_t handle = 0;  ///< 0: one that the kernel put in by itself
    std::uint32_t parent = TC_H_ROOT;
    std::string kind;
    /// Nothing for other kinds.
    std::variant<std::monostate, PriorityQueues, CreditShaper, TokenBuckets, FrameFifo> options;
    bool operator==(const Qdisc&) const = default;
};

/// A class of "htb".
struct TokenBucketClass {
    unsigned ifindex = 0;
    std::uint32_t id = 0;
    std::uint32_t parent = 0;
    std::uint64_t rate = 0;     ///< promised, octets per second
    std::uint64_t ceiling = 0;  ///< octets per second
    std::uint32_t burst = 0;    ///< that may follow one another at once, in ticks of 64 ns at `rate`
    std::uint32_t ceilingBurst = 0;
    std::uint32_t quantum = 0;   ///< octets in turn with classes of the same priority
    std::uint32_t priority = 0;  ///< 0 goes first
    std::uint16_t overhead = 0;  ///< octets that are counted for each frame in addition to its own
    bool operator==(const TokenBucketClass&) const = default;
};
/// Ticks in which so many octets go at a rate (octets per second, not 0).
std::uint32_t burstTicks(std::uint64_t octets, std::uint64_t rate);

/// `flags` as in requestAdd (must be new), requestReplace.
NetlinkMessage newQdisc(const Qdisc& qdisc, std::uint16_t flags);
/// Deletes it if it still has that handle and kind.
NetlinkMessage deleteQdisc(const Qdisc& qdisc);
/// `flags` as in requestAdd, or requestAck for one that exists.
NetlinkMessage newClass(const TokenBucketClass& change, std::uint16_t flags);
NetlinkMessage deleteClass(unsigned ifindex, std::uint32_t id, std::uint32_t parent);

/// Nothing for messages about something else and for malformed ones; for other kinds of class as well.
std::optional<Qdisc> decodeQdisc(const nlmsghdr& message);
std::optional<TokenBucketClass> decodeClass(const nlmsghdr& message);

}  // namespace Linux
