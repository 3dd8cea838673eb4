/// Unix stream sockets, as the control server and its clients use them.
#pragma once

#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Control {

/// Where `msrpd` listens unless told otherwise.
inline constexpr std::string_view defaultSocket = "/run/msrpd/control";

/// A file descriptor with one owner.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_{fd} {}
    Descriptor(Descriptor&& other) noexcept : fd_{std::exchange(other.fd_, -1)} {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
    void close() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }

private:
    int fd_ = -1;
};

/// Connects (blocking).  On failure the descriptor is empty and `problem` one line that names the socket.
Descriptor connectTo(const std::string& path, std::string& problem);

/// Listens (non-blocking) on a socket that only its owner may use; makes the directory if only that is
/// missing.  A socket that nobody serves any more is replaced; one that is served, and a file that is no
/// socket, are left alone.
Descriptor listenOn(const std::string& path, std::string& problem);

}  // namespace Control
