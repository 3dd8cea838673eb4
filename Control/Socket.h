/// Unix stream sockets, as the control server and its clients use them.
#pragma once

#include "Runtime/FileDescriptor.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Control {

/// Where `msrpd` listens unless told otherwise.
inline constexpr std::string_view defaultSocket = "/run/msrpd/control";

/// Connects (blocking, but for no longer than `seconds`, neither here nor when something is sent later).  On
/// failure the descriptor is empty and `problem` one line that names the socket.
Runtime::FileDescriptor connectTo(const std::string& path, std::string& problem, unsigned seconds = 10);

/// A socket on which a server listens (non-blocking), and that only its owner, root and a group may use.  Its
/// file goes with it, unless another server's stands there by then.
class ListeningSocket {
public:
    /// Makes the directory if only that is missing.  A socket that nobody serves any more is replaced; one
    /// that is served, and a file that is no socket, are left alone.  Null on failure, and `problem` one
    /// line that names the socket.
    /// A group that the system does not have is left out, and so is one that this process may not give to its
    /// files: then `notice` is one line that says so.
    static std::unique_ptr<ListeningSocket> open(const std::string& path, const char* group,
                                                 std::string& problem, std::string& notice);
    ListeningSocket(Runtime::FileDescriptor fd, std::string path,
                    std::pair<std::uint64_t, std::uint64_t> file)
        : fd_{std::move(fd)}, path_{std::move(path)}, file_{file} {}
    ListeningSocket(const ListeningSocket&) = delete;
    ListeningSocket& operator=(const ListeningSocket&) = delete;
    ~ListeningSocket();

    [[nodiscard]] int get() const { return fd_.get(); }

private:
    const Runtime::FileDescriptor fd_;
    const std::string path_;
    const std::pair<std::uint64_t, std::uint64_t> file_;  ///< device and number
};

}  // namespace Control
