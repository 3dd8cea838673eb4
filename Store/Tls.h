/// The client's side of TLS (1.2 or later), without a socket: what is to be sent and what came are octets.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

struct bio_st;
struct ssl_ctx_st;
struct ssl_st;

namespace Store {

/// The server's certificate is always checked; only with `on` is anything else looked at.
struct TlsFiles {
    bool on = false;
    std::string authorities{};  ///< certificates (PEM) of those who may sign a server's; empty: the system's
    std::string certificate{};  ///< our own with its chain (PEM); empty: none
    std::string key{};          ///< to that certificate (PEM, without a password)
    std::string server{};       ///< name or address that the server's certificate must have; empty: that to
                                ///< which the connection goes

    bool operator==(const TlsFiles&) const = default;
};

/// What the files say, kept for further sessions: the certificates of a whole system take tens of
/// milliseconds to read.
class TlsContext {
public:
    /// Reads the files where they have changed.  Null on failure, and then `problem` is one line.
    ssl_ctx_st* of(const TlsFiles& files, std::string& problem);

private:
    struct Free {
        void operator()(ssl_ctx_st* context) const;
    };

    TlsFiles files_;
    std::string stamps_;
    std::unique_ptr<ssl_ctx_st, Free> context_;
};

class TlsSession {
public:
    /// `address` is expected in the certificate where `files` names no server.  Null on failure, and then
    /// `problem` is one line.
    static std::unique_ptr<TlsSession> begin(const TlsFiles& files, TlsContext& context,
                                             const std::string& address, std::string& problem);
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    /// Both sides have agreed, and the server is who it should be.
    [[nodiscard]] bool established() const { return established_; }
    /// Takes what came from the socket, and appends what it says to `plain`.  Empty on success, else one
    /// line.
    std::string take(std::string_view octets, std::string& plain);
    /// Makes what `plain` says ready to be sent; only when established.  Empty on success, else one line.
    std::string give(std::string_view plain);
    /// What is to be sent; until the next call of anything here.
    [[nodiscard]] std::string_view unsent() const;
    /// So many octets of it have been.
    void sent(std::size_t octets);

private:
    struct Free {
        void operator()(ssl_st* session) const;
    };

    explicit TlsSession(ssl_st* session);
    std::string shakeHands();
    [[nodiscard]] std::string failure(int result) const;

    std::unique_ptr<ssl_st, Free> session_;
    bio_st* in_;   ///< of the session
    bio_st* out_;  ///< of the session
    bool established_ = false;
};

}  // namespace Store
