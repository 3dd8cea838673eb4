/// The kernel's configuration bus: requests with their answers on one socket, notifications on another.
///
/// Two sockets, since a burst of notifications would make the answer of a request fail with ENOBUFS.  A
/// message is handed on as the kernel's own header with its payload behind it, its length checked.
#pragma once

#include "Linux/FileDescriptor.h"
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
    /// Why the kernel refused, in its own words where it has any.
    [[nodiscard]] const std::string& problem() const { return problem_; }

private:
    State end(const nlmsghdr& message, std::size_t textOffset);

    std::uint32_t sequence_;
    bool interrupted_ = false;
    std::string problem_;
};

/// The socket for requests.
class NetlinkRequests {
public:
    /// Empty on success.
    std::string open();

    /// Asks for everything of one kind: `request` is a message's type and `body` what follows its header.
    /// `each` gets every entry; `begin` is called before the first one, and again when the dump has to be
    /// repeated: forget what came until then.  Waits for the kernel, which answers at once.  Empty on
    /// success.
    std::string dump(std::uint16_t request, std::span<const std::byte> body,
                     const std::function<void()>& begin, const NetlinkHandler& each);

private:
    DumpReader::State dumpOnce(std::span<const std::byte> request, std::uint32_t sequence,
                               const NetlinkHandler& each, std::string& problem);

    FileDescriptor fd_;
    std::vector<std::byte> buffer_;
    std::uint32_t sequence_ = 0;
};

/// The socket for notifications.  The loop must outlive it.
class NetlinkNotices {
public:
    /// `each` gets the notifications; `lost` is called when some did not fit into the socket: read everything
    /// anew.
    NetlinkNotices(Runtime::FdLoop& loop, NetlinkHandler each, std::function<void()> lost);

    /// Joins groups by their numbers (RTNLGRP_...).  `bufferBytes` is what may queue up.  Empty on success.
    std::string open(std::initializer_list<unsigned> groups, int bufferBytes);
    /// Throws away what is queued, to be called before everything is read anew: old news would undo the new.
    void discard();

private:
    void read();

    Runtime::FdLoop& loop_;
    const NetlinkHandler each_;
    const std::function<void()> lost_;
    FileDescriptor fd_;
    std::vector<std::byte> buffer_;
    Runtime::FdLoop::Watch watch_;
};

}  // namespace Linux
