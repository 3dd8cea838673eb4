#include "Linux/kernel/Claims.h"

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

constexpr int socketFlags = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
constexpr int backlog = 64;
/// A daemon listens some microseconds after it has taken a name.
constexpr int triesMost = 10;
constexpr useconds_t betweenTries = 5000;

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

/// What answers there.  The kernel does not tell a process of another PID namespace.
struct Listener {
    int error;      ///< of the connection; ECONNREFUSED: nobody listens
    ucred owner{};  ///< where there is no error; a process of 0 is not known
};

Listener listenerAt(const Address& address) {
    const Runtime::FileDescriptor probe{::socket(AF_UNIX, socketFlags, 0)};
    if (!probe || ::connect(probe.get(), address.get(), address.length) != 0) return {errno};
    Listener found{0};
    socklen_t length = sizeof found.owner;
    return ::getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &found.owner, &length) == 0 ? found
                                                                                          : Listener{errno};
}

/// Those of root and our own user are daemons; anybody else may only have taken the name.
bool heeded(const ucred& owner) { return owner.uid == 0 || owner.uid == ::geteuid(); }

std::string processText(const ucred& owner) {
    return owner.pid != 0 ? Runtime::concat("process ", owner.pid) : "a process of another PID namespace";
}

}  // namespace

bool Claims::taken(const std::string& what) { return listenerAt(Address{what}).error != ECONNREFUSED; }

int Claims::holder(const std::string& what) { return listenerAt(Address{what}).owner.pid; }

std::string Claims::take(const std::string& what, Patience patience) {
    if (has(what)) return {};
    const Address address{what};
    Runtime::FileDescriptor socket{::socket(AF_UNIX, socketFlags, 0)};
    if (!socket) return what + ": " + std::generic_category().message(errno);
    for (int tries = 1; ::bind(socket.get(), address.get(), address.length) != 0; ++tries) {
        if (errno != EADDRINUSE) return what + ": " + std::generic_category().message(errno);
        const auto [error, owner] = listenerAt(address);
        if (error == EAGAIN) return what + " is run by another msrpd already";
        const bool silent = error == ECONNREFUSED;
        if (error != 0 && !silent) return what + ": " + std::generic_category().message(error);
        if (!silent && heeded(owner))
            return Runtime::concat(what, " is run by another msrpd already, ", processText(owner));
        if (silent && tries < (patience == Patience::some ? triesMost : 2)) {
            // It may be gone by now; else it may be about to listen.
            if (patience == Patience::some) ::usleep(betweenTries);
            continue;
        }
        complaint_(Runtime::concat(what, ": ",
                                   silent ? "a process that does not listen"
                                          : Runtime::concat(processText(owner), " of user ", owner.uid),
                                   " has taken the name by which daemons find each other"));
        held_[what];
        return {};
    }
    if (::listen(socket.get(), backlog) != 0) return what + ": " + std::generic_category().message(errno);
    auto asked = loop_.watch(socket.get(), Runtime::FdLoop::Ready::readable, [fd = socket.get()] {
        const Runtime::FileDescriptor gone{::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)};
    });
    held_[what] = {std::move(socket), std::move(asked)};
    return {};
}

}  // namespace Linux
