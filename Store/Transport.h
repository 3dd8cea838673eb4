/// Octets over a socket that never waits, plain or by TLS.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Store/Address.h"
#include "Store/Tls.h"

#include <cstddef>
#include <memory>
#include <string>

namespace Store {

/// Why there is no connection.
struct NotConnected {
    std::string problem{};     ///< one line; empty: there is one
    bool nobodyThere = false;  ///< no program listens at that address
};

/// Problems are one line each, without the address; after one, nothing is to be asked of it any more.
class Transport {
public:
    /// What one call of `receive` takes from the socket at most, in octets.
    static constexpr std::size_t gulp = 16384;

    /// Begins to connect; `context` is one that may be used again.  Null on failure, and then `why` tells it.
    static std::unique_ptr<Transport> open(const Address& to, const TlsFiles& tls, TlsContext& context,
                                           NotConnected& why);

    /// To be watched: until `connected` for writable, then for readable, and for writable while `unsent`.
    [[nodiscard]] int get() const { return fd_.get(); }
    /// Once the socket is writable.
    NotConnected connected();
    /// Connected, and where TLS is used, agreed with the server: plain octets can be sent.
    [[nodiscard]] bool ready() const { return connected_ && (!tls_ || tls_->established()); }

    /// Takes what the socket has, and appends what it says to `plain`: about `gulp` octets at most.  Empty on
    /// success, else the problem, also when the server has closed the connection.
    std::string receive(std::string& plain);
    /// Sends as much of `plain` as the socket takes now (when ready), and removes it from there.  Empty on
    /// success, else the problem.  No SIGPIPE comes of it.  When the server has closed the connection, that
    /// is for `receive` to find, after what the server said before.
    std::string send(std::string& plain);
    /// Octets that TLS wants to send and the socket has not taken yet.
    [[nodiscard]] std::size_t unsent() const { return tls_ && !deaf_ ? tls_->unsent().size() : 0; }

private:
    Transport(Runtime::FileDescriptor fd, std::unique_ptr<TlsSession> tls)
        : fd_{std::move(fd)}, tls_{std::move(tls)} {}
    /// How many the socket takes; -1 and the problem on failure.
    std::ptrdiff_t put(std::string_view octets, std::string& problem);
    std::string flushTls();

    Runtime::FileDescriptor fd_;
    std::unique_ptr<TlsSession> tls_;
    bool connected_ = false;
    bool deaf_ = false;  ///< the server takes nothing any more
};

}  // namespace Store
