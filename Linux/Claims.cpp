#include "Linux/Claims.h"

#include "Runtime/Text.h"

#include <cerrno>
#include <cstddef>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Linux {

namespace {

constexpr int flags = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
constexpr int backlog = 64;

struct Address {
    explicit Address(const std::string& what) {
        address.sun_family = AF_UNIX;
        // Behind a zero, which makes it a name that is no file's.
        length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 +
                                   ("msrpd " + what).copy(address.sun_path + 1, sizeof address.sun_path - 1));
    }
    [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
    sockaddr_un address{};
    socklen_t length;
};

/// Who listens there; a process of 0 when nobody does.
ucred ownerOf(const Address& address) {
    ucred owner{};
    socklen_t length = sizeof owner;
    const FileDescriptor probe{::socket(AF_UNIX, flags, 0)};
    if (!probe || ::connect(probe.get(), address.get(), address.length) != 0 ||
        ::getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &owner, &length) != 0)
        return {};
    return owner;
}

/// Root and our own user are heeded; anybody else may only have taken the name.
bool heeded(const ucred& owner) { return owner.pid != 0 && (owner.uid == 0 || owner.uid == ::geteuid()); }

}  // namespace

int Claims::holder(const std::string& what) {
    const ucred owner = ownerOf(Address{what});
    return heeded(owner) ? owner.pid : 0;
}

std::string Claims::take(const std::string& what) {
    if (has(what)) return {};
    const Address address{what};
    FileDescriptor socket{::socket(AF_UNIX, flags, 0)};
    if (!socket) return what + ": " + std::generic_category().message(errno);
    // The other may be on its way out.
    for (int tries = 0; ::bind(socket.get(), address.get(), address.length) != 0; ++tries) {
        if (errno != EADDRINUSE) return what + ": " + std::generic_category().message(errno);
        const ucred owner = ownerOf(address);
        if (owner.pid != 0 && !heeded(owner)) {
            complaint_(Runtime::concat(what, ": process ", owner.pid, " of user ", owner.uid,
                                       " has taken the name by which daemons find each other"));
            held_[what];
            return {};
        }
        if (owner.pid != 0)
            return Runtime::concat(what, " is run by another msrpd already, process ", owner.pid);
        if (tries == 10) return what + " is run by another msrpd already";
        ::usleep(10'000);
    }
    if (::listen(socket.get(), backlog) != 0) return what + ": " + std::generic_category().message(errno);
    auto asked = loop_.watch(socket.get(), Runtime::FdLoop::Ready::readable, [fd = socket.get()] {
        const FileDescriptor gone{::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)};
    });
    held_[what] = {std::move(socket), std::move(asked)};
    return {};
}

}  // namespace Linux
