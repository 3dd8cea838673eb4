/// Where a server is.
#pragma once

#include <optional>
#include <string>
#include <sys/socket.h>

namespace Store {

class Address {
public:
    /// Of "unix:/PATH", "ADDRESS:PORT" or "[IPv6 ADDRESS]:PORT", with a port from 1 to 65535. "localhost" is
    /// 127.0.0.1; other names are refused, because looking them up may take long.  Nothing on failure, and
    /// then `problem` is one line that shows the text.
    static std::optional<Address> parse(const std::string& text, std::string& problem);
    /// Of an address without brackets and a port, as Sentinels tell them.  As `parse`.
    static std::optional<Address> of(const std::string& host, const std::string& port, std::string& problem);

    /// In the form that `parse` understands.
    [[nodiscard]] const std::string& text() const { return text_; }
    [[nodiscard]] bool isUnix() const { return storage_.ss_family == AF_UNIX; }
    /// The address without its port; empty for a Unix socket.
    [[nodiscard]] const std::string& host() const { return host_; }

    /// For connect().
    [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage_); }
    [[nodiscard]] socklen_t length() const { return length_; }

private:
    Address() = default;

    std::string text_;
    std::string host_;
    sockaddr_storage storage_{};
    socklen_t length_ = 0;
};

/// Whether it is an IPv4 or IPv6 address in figures.
bool isFigures(const std::string& host);

}  // namespace Store
