/// The kernel's configuration bus: requests with their answers on one socket, notifications on another.
///
/// Two sockets, since a burst of notifications would make the answer of a request fail with ENOBUFS.  A
/// message is handed on as the kernel's own header with its payload behind it, its length checked.
#pragma once

#include "Linux/kernel/NetlinkMessage.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <linux/netlink.h>
#include <span>
#include <string>
#include <vector>

namespace Linux {

using NetlinkHandler = std::function<void(const nlmsghdr& message)>;

/// How the kernel answered a request.
struct NetlinkAnswer {
    int error = 0;     ///< 0: carried out; else a number of errno
    std::string text;  ///< the kernel's own words, where it has any; also a warning that comes with success

    /// Whether it was carried out.
    explicit operator bool() const { return error == 0; }
    /// "Invalid argument (Bridge device is not running)", or nothing.
    [[nodiscard]] std::string problem() const;
    bool operator==(const NetlinkAnswer&) const = default;
};

/// Reads the answer of one dump, datagram by datagram.
class DumpReader {
public:
    enum class State {
        more,         ///< read another datagram
        complete,     ///< every entry was seen
        interrupted,  ///< the kernel's table changed meanwhile: what was seen is worth nothing
        refused,      ///< see `problem`
    };

    explicit DumpReader(std::uint32_t sequence) : sequence_{sequence} {}

    /// Hands the entries in `datagram` to `each`.
    State read(std::span<const std::byte> datagram, const NetlinkHandler& each);
    /// Why the kernel refused.
    [[nodiscard]] const NetlinkAnswer& answer() const { return answer_; }

private:
    State end(NetlinkAnswer answer);

    std::uint32_t sequence_;
    bool interrupted_ = false;
    NetlinkAnswer answer_;
};

/// What is asked of the kernel; a test has one of its own that answers from a script.
class NetlinkChannel {
public:
    virtual ~NetlinkChannel() = default;

    /// Asks for everything of one kind: `request` is a message's type and `body` what follows its header.
    /// `each` gets every entry; `begin` is called before the first one, and again when the dump has to be
    /// repeated: forget what came until then.  Waits for the kernel, which answers at once.  On an error what
    /// came is not the whole: use none of it.
    [[nodiscard]] virtual NetlinkAnswer dump(std::uint16_t request, std::span<const std::byte> body,
                                             const std::function<void()>& begin,
                                             const NetlinkHandler& each) = 0;
    /// Has the requests carried out in their order, each for itself: one that fails does not keep the next
    /// from being tried.  They need NLM_F_ACK.  As many answers as requests.
    [[nodiscard]] virtual std::vector<NetlinkAnswer> carryOut(std::span<NetlinkMessage> requests) = 0;
    [[nodiscard]] NetlinkAnswer carryOut(NetlinkMessage request);
    /// A request that is answered by messages (and confirmed behind them: NLM_F_ACK); `each` gets them.
    [[nodiscard]] virtual NetlinkAnswer ask(NetlinkMessage request, const NetlinkHandler& each) = 0;
};

/// The socket for requests.
class NetlinkRequests final : public NetlinkChannel {
public:
    /// `family` is NETLINK_ROUTE or NETLINK_GENERIC.  Empty on success.
    std::string open(int family = NETLINK_ROUTE);

    NetlinkAnswer dump(std::uint16_t request, std::span<const std::byte> body,
                       const std::function<void()>& begin, const NetlinkHandler& each) override;
    std::vector<NetlinkAnswer> carryOut(std::span<NetlinkMessage> requests) override;
    using NetlinkChannel::carryOut;
    NetlinkAnswer ask(NetlinkMessage request, const NetlinkHandler& each) override;

private:
    DumpReader::State dumpOnce(std::span<const std::byte> request, std::uint32_t sequence,
                               const NetlinkHandler& each, NetlinkAnswer& answer);
    /// Sends what `datagram` holds and hears until the answers of all its `answers`, whose first sequence
    /// number is `first`, are there.
    void exchange(std::span<const std::byte> datagram, std::uint32_t first, std::span<NetlinkAnswer> answers,
                  const NetlinkHandler& each);

    Runtime::FileDescriptor fd_;
    std::vector<std::byte> buffer_;
    std::uint32_t sequence_ = 0;
};

/// The socket for notifications.  The loop must outlive it.
class NetlinkNotices {
public:
    /// `each` gets the notifications; `lost` is called when some did not fit into the socket: read everything
    /// anew.
    NetlinkNotices(Runtime::FdLoop& loop, NetlinkHandler each, std::function<void()> lost);

    /// Joins groups by their numbers (RTNLGRP_...).  `bufferBytes` is what may queue up; `family` as for
    /// requests. Empty on success.
    std::string open(std::initializer_list<unsigned> groups, int bufferBytes, int family = NETLINK_ROUTE);
    /// Throws away what is queued, to be called before everything is read anew: old news would undo the new.
    void discard();
    /// Hands on what is queued without waiting for the loop, a bounded number; true when nothing is left.
    bool drain();

private:
    /// At most that many; true when nothing is left.
    bool read(int limit);

    Runtime::FdLoop& loop_;
    const NetlinkHandler each_;
    const std::function<void()> lost_;
    Runtime::FileDescriptor fd_;
    std::vector<std::byte> buffer_;
    Runtime::FdLoop::Watch watch_;
};

}  // namespace Linux
