#include "Store/Transport.h"

#include "Control/SystemProblem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

namespace Store {

using Control::systemProblem;

namespace {

/// What one call of `send` hands over at most: a server that takes everything at once must not hold us up.
constexpr std::size_t mostSent = std::size_t{256} << 10;

/// A port that nobody serves may become our own: then we would talk to ourselves.
bool isOwnEnd(int fd) {
    sockaddr_storage here{};
    sockaddr_storage there{};
    socklen_t hereLength = sizeof here;
    socklen_t thereLength = sizeof there;
    return ::getsockname(fd, reinterpret_cast<sockaddr*>(&here), &hereLength) == 0 &&
           ::getpeername(fd, reinterpret_cast<sockaddr*>(&there), &thereLength) == 0 &&
           here.ss_family != AF_UNIX && hereLength == thereLength &&
           std::memcmp(&here, &there, hereLength) == 0;
}

NotConnected notConnected(int error) {
    return {.problem = systemProblem(error), .nobodyThere = error == ECONNREFUSED || error == ENOENT};
}

}  // namespace

std::unique_ptr<Transport> Transport::open(const Address& to, const TlsFiles& tls, TlsContext& context,
                                           NotConnected& why) {
    std::unique_ptr<TlsSession> session;
    if (tls.on && to.isUnix()) {
        why.problem = "TLS is not used over Unix sockets";
        return nullptr;
    }
    if (tls.on) {
        session = TlsSession::begin(tls, context, to.host(), why.problem);
        if (!session) return nullptr;
    }
    Runtime::FileDescriptor fd{::socket(to.get()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (!fd) {
        why = {.problem = systemProblem(errno)};
        return nullptr;
    }
    const int on = 1;
    if (!to.isUnix()) ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd.get(), to.get(), to.length()) != 0 && errno != EINPROGRESS) {
        // Of a Unix socket: its server has more to accept than it may keep waiting.
        why = errno == EAGAIN ? NotConnected{.problem = "the server does not accept connections"}
                              : notConnected(errno);
        return nullptr;
    }
    return std::unique_ptr<Transport>{new Transport{std::move(fd), std::move(session)}};
}

NotConnected Transport::connected() {
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error == 0 && isOwnEnd(fd_.get())) error = ECONNREFUSED;
    if (error != 0) return notConnected(error);
    connected_ = true;
    return {};
}

std::string Transport::receive(std::string& plain) {
    std::array<char, gulp> piece{};
    const ssize_t count = ::recv(fd_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    // Whether it had read all that we said makes no difference to anybody.
    if (count == 0 || (count < 0 && errno == ECONNRESET)) return "the server has closed the connection";
    if (count < 0) return errno == EAGAIN || errno == EINTR ? "" : systemProblem(errno);
    const std::string_view octets{piece.data(), static_cast<std::size_t>(count)};
    if (tls_) return tls_->take(octets, plain);
    plain.append(octets);
    return {};
}

std::ptrdiff_t Transport::put(std::string_view octets, std::string& problem) {
    const ssize_t count = ::send(fd_.get(), octets.data(), octets.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) return count;
    if (errno == EAGAIN || errno == EINTR) return 0;
    deaf_ = errno == EPIPE || errno == ECONNRESET;
    if (deaf_) return 0;
    problem = systemProblem(errno);
    return -1;
}

std::string Transport::flushTls() {
    std::string problem;
    while (unsent() > 0) {
        const std::ptrdiff_t count = put(tls_->unsent(), problem);
        if (count <= 0) return problem;
        tls_->sent(static_cast<std::size_t>(count));
    }
    return problem;
}

std::string Transport::send(std::string& plain) {
    std::string problem;
    if (tls_) problem = flushTls();
    std::size_t taken = 0;
    const std::size_t most = ready() && !deaf_ ? std::min(plain.size(), mostSent) : 0;
    while (problem.empty() && unsent() == 0 && taken < most) {
        const std::string_view rest = std::string_view{plain}.substr(taken, std::min(gulp, most - taken));
        if (tls_) {
            problem = tls_->give(rest);
            taken += rest.size();
            if (problem.empty()) problem = flushTls();
        } else {
            const std::ptrdiff_t count = put(rest, problem);
            if (count <= 0) break;
            taken += static_cast<std::size_t>(count);
        }
    }
    plain.erase(0, deaf_ ? plain.size() : taken);
    return problem;
}

}  // namespace Store
