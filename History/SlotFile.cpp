#include "History/SlotFile.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <optional>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace History {

using Runtime::concat;
using Runtime::FileDescriptor;

namespace {

constexpr std::string_view magic = "MSRPHIS1";
constexpr std::size_t nextAt = 8;
constexpr std::size_t runAt = 16;
constexpr std::size_t runOctets = 36;
/// Files that are larger are none of ours.
constexpr std::size_t mostOctets = std::size_t{512} << 20;
/// A number so far beyond the newest event was not written by us.
constexpr std::uint64_t farthest = std::uint64_t{1} << 40;

constexpr const char* fileName = "history";
constexpr const char* freshName = "history.new";
constexpr const char* asideName = "history.aside";
constexpr int existing = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

std::string because(int error) { return std::generic_category().message(error); }

/// The machine's present run; empty where it is not told.
std::string currentRun() {
    const FileDescriptor file{::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC)};
    std::array<char, runOctets> name{};
    if (!file || ::read(file.get(), name.data(), name.size()) != ssize_t{runOctets}) return {};
    return {name.data(), name.size()};
}

std::uint64_t numberAt(std::span<const std::byte> octets, std::size_t at) {
    std::uint64_t number = 0;
    std::memcpy(&number, octets.data() + at, sizeof number);
    return number;
}

std::string_view textAt(std::span<const std::byte> octets, std::size_t at, std::size_t size) {
    return {reinterpret_cast<const char*>(octets.data() + at), size};
}

/// Empty, or why files in that directory cannot be believed.
std::string distrust(const FileDescriptor& directory) {
    struct stat about {};
    if (!directory || ::fstat(directory.get(), &about) != 0) return because(errno);
    if (about.st_uid != ::geteuid() && about.st_uid != 0) return "its directory is somebody else's";
    const bool shared = (about.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return shared ? "others may write in its directory" : "";
}

/// What is wrong with a file that has the name; empty: it may be read and written.
std::string objection(const FileDescriptor& file, struct stat& about) {
    if (::fstat(file.get(), &about) != 0) return because(errno);
    if (!S_ISREG(about.st_mode) || about.st_nlink != 1) return "it is no plain file";
    if (about.st_uid != ::geteuid()) return "it is somebody else's";
    if ((about.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others may write it";
    if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) return "another process has it";
    return {};
}

/// Nothing when it is no file of ours.
std::optional<std::vector<std::byte>> contentOf(const FileDescriptor& file, const struct stat& about) {
    const auto size = static_cast<std::size_t>(about.st_size);
    if (size < slotOctets || size > mostOctets) return std::nullopt;
    std::vector<std::byte> content(size);
    std::size_t got = 0;
    while (got < size) {
        const ssize_t count = ::pread(file.get(), content.data() + got, size - got, static_cast<off_t>(got));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        got += static_cast<std::size_t>(count);
    }
    content.resize(got);
    if (got < slotOctets || textAt(content, 0, magic.size()) != magic) return std::nullopt;
    return content;
}

/// Allocated now, so that a full disk is told at the start, as far as the file system can know that then.
int allocate(const FileDescriptor& file, std::size_t size) {
    return ::posix_fallocate(file.get(), 0, static_cast<off_t>(size));
}

/// 0, or the error.
int writeAll(const FileDescriptor& file, std::span<const std::byte> octets, std::size_t at) {
    while (!octets.empty()) {
        const ssize_t count = ::pwrite(file.get(), octets.data(), octets.size(), static_cast<off_t>(at));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count < 0 ? errno : EIO;
        octets = octets.subspan(static_cast<std::size_t>(count));
        at += static_cast<std::size_t>(count);
    }
    return 0;
}

std::string memoryOnly(const std::string& path, std::string_view why) {
    return concat("history is kept in memory only: ", path, ": ", why);
}

}  // namespace

SlotFile::SlotFile(std::size_t slots) : memory_((slots + 1) * slotOctets) { nextIs(1); }

std::uint64_t SlotFile::next() const { return numberAt(memory_, nextAt); }
void SlotFile::nextIs(std::uint64_t number) {
    std::memcpy(memory_.data() + nextAt, &number, sizeof number);
    write(nextAt, sizeof number);
}

void SlotFile::slotIs(std::size_t number, const Event& event) {
    const std::size_t at = (number + 1) * slotOctets;
    encode(event, std::span{memory_}.subspan(at).first<slotOctets>());
    write(at, slotOctets);
}

void SlotFile::write(std::size_t at, std::size_t size) {
    if (!file_) return;
    const int error = writeAll(file_, std::span{memory_}.subspan(at, size), at);
    if (error == 0) return;
    problem_ = memoryOnly(path_, because(error));
    path_.clear();
    file_.close();
}

std::string SlotFile::open(const std::string& directory) {
    const std::string path = directory + '/' + fileName;
    const auto failed = [&path](std::string_view why) { return memoryOnly(path, why); };
    const FileDescriptor in{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (const std::string why = distrust(in); !why.empty()) return failed(why);

    FileDescriptor old{::openat(in.get(), fileName, existing)};
    if (!old && errno != ENOENT) return failed(errno == ELOOP ? "it is no plain file" : because(errno));
    struct stat about {};
    std::optional<std::vector<std::byte>> content;
    if (old) {
        if (const std::string why = objection(old, about); !why.empty()) return failed(why);
        content = contentOf(old, about);
        if (!content && ::renameat2(in.get(), fileName, in.get(), asideName, RENAME_NOREPLACE) != 0)
            return failed(concat("it is no history, and cannot be put aside: ", because(errno)));
    }
    if (content && content->size() == memory_.size()) {
        // Sparse when it was copied.
        if (const int error = allocate(old, memory_.size()); error != 0) return failed(because(error));
        memory_ = *content;
        file_ = std::move(old);
    } else {
        // What lies there is a leftover of ours: nobody else writes in the directory.
        ::unlinkat(in.get(), freshName, 0);
        constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        FileDescriptor fresh{::openat(in.get(), freshName, flags, 0600)};
        if (!fresh) return failed(because(errno));
        int error = ::flock(fresh.get(), LOCK_EX | LOCK_NB) != 0 ? errno : allocate(fresh, memory_.size());
        if (error == 0) {
            if (content) adopt(*content);
            std::memcpy(memory_.data(), magic.data(), magic.size());
            error = writeAll(fresh, memory_, 0);
            if (error == 0 && ::renameat(in.get(), freshName, in.get(), fileName) != 0) error = errno;
        }
        file_ = std::move(fresh);
        if (error != 0) {
            ::unlinkat(in.get(), freshName, 0);
            file_.close();
            return failed(because(error));
        }
    }
    path_ = path;

    std::uint64_t newest = 0;
    Event event;
    for (std::size_t i = 0; i < size(); ++i) {
        if (decode(std::as_const(*this).slot(i), event)) newest = std::max(newest, event.sequence);
    }
    std::uint64_t next = SlotFile::next();
    if (next <= newest || next - newest > farthest) next = newest + 1;
    const std::string run = currentRun();
    if (content && textAt(memory_, runAt, runOctets) != run) next += leap;
    std::memcpy(memory_.data() + runAt, run.data(), run.size());
    write(runAt, run.size());
    nextIs(next);
    return problem_;
}

void SlotFile::adopt(const std::vector<std::byte>& content) {
    std::vector<std::pair<std::uint64_t, std::size_t>> whole;  ///< number and place
    Event event;
    for (std::size_t at = slotOctets; at + slotOctets <= content.size(); at += slotOctets) {
        if (decode(std::span{content}.subspan(at).first<slotOctets>(), event))
            whole.emplace_back(event.sequence, at);
    }
    std::ranges::sort(whole, std::greater{});
    if (whole.size() > size()) whole.resize(size());
    for (std::size_t i = 0; i < whole.size(); ++i)
        std::memcpy(memory_.data() + (i + 1) * slotOctets, content.data() + whole[i].second, slotOctets);
    std::memcpy(memory_.data() + nextAt, content.data() + nextAt, runAt + runOctets - nextAt);
}

}  // namespace History
