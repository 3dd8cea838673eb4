#include "Linux/kernel/OwnFile.h"

#include "Runtime/Text.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Linux {

namespace {

/// Ours are far smaller.
constexpr std::size_t mostOctets = 64 << 20;

/// Whether nobody but us and root writes there.
bool trusted(const struct stat& about) {
    return (about.st_uid == geteuid() || about.st_uid == 0) && (about.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return false;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace

std::string OwnFile::cannot(std::string_view what, int error) const {
    return Runtime::concat("cannot ", what, ' ', path_, ": ", std::generic_category().message(error));
}

std::string OwnFile::name() const {
    const std::size_t slash = path_.rfind('/');
    return slash == std::string::npos ? path_ : path_.substr(slash + 1);
}

Runtime::FileDescriptor OwnFile::folder(std::string& problem) const {
    const std::size_t slash = path_.rfind('/');
    const std::string where = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
    Runtime::FileDescriptor fd{open(where.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    struct stat about {};
    if (!fd || fstat(fd.get(), &about) != 0) {
        problem = cannot("use", errno);
        return {};
    }
    if (!trusted(about)) {
        problem = Runtime::concat(path_, " is not used: others may write in its folder");
        return {};
    }
    return fd;
}

std::string OwnFile::read(std::string& text) const {
    text.clear();
    std::string problem;
    const Runtime::FileDescriptor in = folder(problem);
    if (!in) return problem;
    // Without waiting: what is no plain file could make us.
    const Runtime::FileDescriptor fd{
        openat(in.get(), name().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (!fd) return errno == ENOENT ? std::string{} : cannot("read", errno);
    struct stat about {};
    if (fstat(fd.get(), &about) != 0) return cannot("read", errno);
    if (!S_ISREG(about.st_mode)) return Runtime::concat(path_, " is not read: it is no plain file");
    if (!trusted(about)) return Runtime::concat(path_, " is not read: others may write it");
    std::array<char, 1 << 14> piece;
    while (text.size() < mostOctets) {
        const ssize_t length = ::read(fd.get(), piece.data(), piece.size());
        if (length < 0 && errno == EINTR) continue;
        if (length < 0) return cannot("read", errno);
        if (length == 0) break;
        text.append(piece.data(), static_cast<std::size_t>(length));
    }
    return {};
}

std::string OwnFile::replace(std::string_view text) {
    fd_ = Runtime::FileDescriptor{};
    std::string problem;
    const Runtime::FileDescriptor in = folder(problem);
    if (!in) return problem;
    const std::string fresh = name() + ".new";
    // Whatever lies there is a leftover: nobody else writes here.
    unlinkat(in.get(), fresh.c_str(), 0);
    Runtime::FileDescriptor fd{openat(in.get(), fresh.c_str(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (!fd || !writeAll(fd.get(), text) ||
        renameat(in.get(), fresh.c_str(), in.get(), name().c_str()) != 0) {
        return cannot("write", errno);
    }
    fd_ = std::move(fd);
    return {};
}

std::string OwnFile::append(std::string_view text) {
    if (writeAll(fd_.get(), text)) return {};
    const int error = errno;
    fd_ = Runtime::FileDescriptor{};  // what stands in it now is unknown
    return cannot("write", error);
}

void OwnFile::remove() {
    fd_ = Runtime::FileDescriptor{};
    std::string problem;
    if (const Runtime::FileDescriptor in = folder(problem)) unlinkat(in.get(), name().c_str(), 0);
}

}  // namespace Linux
