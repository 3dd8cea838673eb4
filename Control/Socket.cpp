#include "Control/Socket.h"

#include "Control/SystemProblem.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <optional>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <vector>

namespace Control {

namespace {

constexpr int backlog = 64;

std::optional<sockaddr_un> address(const std::string& path) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof to.sun_path) return std::nullopt;
    std::memcpy(to.sun_path, path.data(), path.size());
    return to;
}

std::string badPath(const std::string& path) {
    return "socket \"" + path + "\": a path of 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
           " octets is needed";
}

std::string failure(const std::string& path, int error) {
    return "socket " + path + ": " + systemProblem(error);
}

/// 0 or the error number.
int connectSocket(const Runtime::FileDescriptor& fd, const sockaddr_un& to) {
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 ? 0 : errno;
}

/// Removes a socket that nobody serves.  Empty when the path is free afterwards.
std::string clearStale(const std::string& path, const sockaddr_un& to) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return errno == ENOENT ? "" : failure(path, errno);
    if (!S_ISSOCK(status.st_mode)) return "socket " + path + ": a file that is no socket is in the way";
    const Runtime::FileDescriptor probe{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    const int error = probe ? connectSocket(probe, to) : errno;
    // A full queue of a busy server.
    if (error == 0 || error == EAGAIN) return "socket " + path + ": in use";
    if (error != ECONNREFUSED) return failure(path, error);
    return ::unlink(path.c_str()) == 0 ? "" : failure(path, errno);
}

/// Held while a socket's file is made or removed; leaves nothing behind.  Empty when it cannot be had soon:
/// whoever may open the directory can keep it.
Runtime::FileDescriptor lockDirectory(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    Runtime::FileDescriptor fd{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    for (int tries = 0; fd && tries < 50; ++tries) {
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
        ::usleep(10'000);
    }
    return {};
}

/// Device and number of the file; zeros when there is none.
std::pair<std::uint64_t, std::uint64_t> fileAt(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino};
}

/// The process that listens at the other end.
pid_t peerOf(const Runtime::FileDescriptor& fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    return ::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 ? peer.pid : 0;
}

/// Nothing where the system has no such group.
std::optional<gid_t> groupNumber(const char* name) {
    constexpr std::size_t most = std::size_t{16} << 20;
    // All members must find room, and nobody tells how much they need.
    for (std::size_t octets = 4096; octets <= most; octets *= 2) {
        std::vector<char> room(octets);
        struct group entry {};
        struct group* found = nullptr;
        if (::getgrnam_r(name, &entry, room.data(), room.size(), &found) == ERANGE) continue;
        return found != nullptr ? std::optional{found->gr_gid} : std::nullopt;
    }
    return std::nullopt;
}

/// Lets the members of the group in.  Empty where that is done, or where there is no such group; else why
/// not.
std::string openFor(const char* group, const std::string& path) {
    const auto number = groupNumber(group);
    if (!number) return {};
    // By descriptor: whatever else may come to stand there must not be opened to anybody.
    const Runtime::FileDescriptor file{::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISSOCK(status.st_mode)) return {};
    if (::fchownat(file.get(), "", static_cast<uid_t>(-1), *number, AT_EMPTY_PATH) == 0 &&
        ::chmod(("/proc/self/fd/" + std::to_string(file.get())).c_str(), 0660) == 0)
        return {};
    return failure(path, errno) + ": group \"" + group + "\" cannot be let in";
}

void makeDirectory(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    // Where this fails, bind tells why.
    if (slash != std::string::npos) ::mkdir(path.substr(0, slash).c_str(), 0755);
}

}  // namespace

Runtime::FileDescriptor connectTo(const std::string& path, std::string& problem, unsigned seconds) {
    const auto to = address(path);
    if (!to) {
        problem = badPath(path);
        return {};
    }
    Runtime::FileDescriptor fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    // A server that hangs, and whose queue is full, would else be waited for without end.
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(seconds);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int error = fd ? connectSocket(fd, *to) : errno;
    if (error == 0) return fd;
    problem = failure(path, error);
    return {};
}

std::unique_ptr<ListeningSocket> ListeningSocket::open(const std::string& path, const char* group,
                                                       std::string& problem, std::string& notice) {
    const auto to = address(path);
    if (!to) {
        problem = badPath(path);
        return nullptr;
    }
    makeDirectory(path);
    // Two that start at the same time must not remove each other's.
    const Runtime::FileDescriptor lock = lockDirectory(path);
    problem = clearStale(path, *to);
    if (!problem.empty()) return nullptr;

    Runtime::FileDescriptor fd{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    // Set before the file exists, so that there is no moment at which others could connect.
    const mode_t before = ::umask(0177);
    const bool bound = fd && ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&*to), sizeof *to) == 0 &&
                       ::listen(fd.get(), backlog) == 0;
    const int error = errno;
    ::umask(before);
    if (bound) notice = openFor(group, path);
    if (bound) return std::make_unique<ListeningSocket>(std::move(fd), path, fileAt(path));
    problem = failure(path, error);
    return nullptr;
}

ListeningSocket::~ListeningSocket() {
    const Runtime::FileDescriptor lock = lockDirectory(path_);
    if (fileAt(path_) != file_) return;
    // The number may be that of a file which has gone, given to another server's: ask who answers there.
    const auto to = address(path_);
    const Runtime::FileDescriptor probe{::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    if (probe && connectSocket(probe, *to) == 0 && peerOf(probe) != ::getpid()) return;
    ::unlink(path_.c_str());
}

}  // namespace Control
