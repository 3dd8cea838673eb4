/// Who asks over a control socket.
#pragma once

#include "Runtime/FileDescriptor.h"

#include <string>
#include <sys/types.h>

namespace Control {

/// By the kernel's word, as of the moment at which the connection was made.
struct Peer {
    static constexpr uid_t nobodyKnown = static_cast<uid_t>(-1);

    pid_t process = 0;
    uid_t user = nobodyKnown;
    bool reads = false;  ///< and changes nothing

    /// Of the other end of a connected Unix socket.
    static Peer at(const Runtime::FileDescriptor& socket);
    /// "user 1000, process 1234"
    [[nodiscard]] std::string text() const;
};

}  // namespace Control
