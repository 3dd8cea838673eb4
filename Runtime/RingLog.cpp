#include "Runtime/RingLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Runtime {

namespace {

constexpr std::string_view magic = "RINGLOG1";
constexpr std::size_t slotOctets = 64;
constexpr std::size_t timeAt = 8;
constexpr std::size_t labelAt = 16;
constexpr std::size_t labelOctets = 24;
constexpr std::size_t argumentsAt = labelAt + labelOctets;
static_assert(argumentsAt + 3 * sizeof(std::uint64_t) == slotOctets);

constexpr std::size_t clocksAt = 16;
/// What is put into the name of a file that was put aside.
constexpr std::string_view aside = "-last";
constexpr std::string_view extension = ".rl";
/// Files of a directory that are looked at: a crowded one must not keep the process from starting.
constexpr int filesLookedAt = 65536;

std::string failure(const std::string& path, int error) {
    return "ring log " + path + ": " + std::strerror(error);
}

/// A file's name in its directory.  All steps go by the open directory, so nobody can put another one in its
/// place between two of them.
class Location {
public:
    explicit Location(const std::string& path) : path_{path} {
        const std::size_t slash = path.rfind('/');
        name_ = slash == std::string::npos ? path : path.substr(slash + 1);
        const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        directory_ = FileDescriptor{::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        struct stat status {};
        if (!directory_ || ::fstat(directory_.get(), &status) != 0) {
            problem_ = failure(path, errno);
        } else if ((status.st_mode & S_IWOTH) != 0 && (status.st_mode & S_ISVTX) == 0) {
            problem_ = "ring log " + path + ": anybody may replace files in this directory";
        }
    }

    [[nodiscard]] const std::string& problem() const { return problem_; }
    [[nodiscard]] FileDescriptor create() const {
        constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        return FileDescriptor{::openat(directory_.get(), name_.c_str(), flags, 0600)};
    }
    void remove() const { ::unlinkat(directory_.get(), name_.c_str(), 0); }

    /// Gives an ended process's ring log that has the name another one.  Empty when the name is free
    /// afterwards.
    [[nodiscard]] std::string putAside() const {
        if (free(name_)) return {};
        const std::string last = stem() + std::string{aside} + std::string{extension};
        for (const std::string& name : {name_, last}) {
            if (free(name)) continue;
            const auto found = look(name);
            if (!found)
                return "ring log " + path_ + ": " + name + " is in the way, and no ring log of this user";
            if (!found->ended) return "ring log " + path_ + ": a process that still runs writes " + name;
        }
        return ::renameat(directory_.get(), name_.c_str(), directory_.get(), last.c_str()) == 0
                   ? ""
                   : failure(path_, errno);
    }

    /// Where the name carries the process number: removes the ring logs of processes that have ended, but for
    /// the newest.
    void clear() const {
        const std::string number = std::to_string(::getpid());
        if (!stem().ends_with("-" + number)) return;
        const std::string family = stem().substr(0, stem().size() - number.size());
        const int listing = ::openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* entries = listing >= 0 ? ::fdopendir(listing) : nullptr;
        if (entries == nullptr) return;
        std::vector<std::pair<Found, std::string>> ended;
        for (int looked = 0; looked < filesLookedAt; ++looked) {
            const dirent* entry = ::readdir(entries);
            if (entry == nullptr) break;
            if (!belongs(entry->d_name, family)) continue;
            if (const auto found = look(entry->d_name); found && found->ended)
                ended.emplace_back(*found, entry->d_name);
        }
        ::closedir(entries);
        const auto newest = std::max_element(ended.begin(), ended.end(), [](const auto& a, const auto& b) {
            return a.first.written < b.first.written;
        });
        for (auto old = ended.begin(); old != ended.end(); ++old) {
            if (old != newest) ::unlinkat(directory_.get(), old->second.c_str(), 0);
        }
    }

private:
    struct Found {
        bool ended = false;
        std::pair<std::int64_t, std::int64_t> written;
    };

    [[nodiscard]] std::string stem() const {
        return name_.ends_with(extension) ? name_.substr(0, name_.size() - extension.size()) : name_;
    }
    /// "family", digits, perhaps what a file that was put aside has, and the extension.
    static bool belongs(std::string_view name, std::string_view family) {
        if (!name.starts_with(family) || !name.ends_with(extension)) return false;
        name.remove_prefix(family.size());
        name.remove_suffix(extension.size());
        if (name.ends_with(aside)) name.remove_suffix(aside.size());
        return !name.empty() && name.find_first_not_of("0123456789") == std::string_view::npos;
    }
    [[nodiscard]] bool free(const std::string& name) const {
        struct stat status {};
        return ::fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 &&
               errno == ENOENT;
    }
    /// A ring log of this user under that name.
    [[nodiscard]] std::optional<Found> look(const std::string& name) const {
        constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        const FileDescriptor fd{::openat(directory_.get(), name.c_str(), flags)};
        struct stat status {};
        std::array<char, magic.size()> head{};
        if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
            status.st_uid != ::geteuid() || status.st_nlink != 1 ||
            ::read(fd.get(), head.data(), head.size()) != ssize_t{head.size()} ||
            std::string_view{head.data(), head.size()} != magic) {
            return std::nullopt;
        }
        return Found{::flock(fd.get(), LOCK_SH | LOCK_NB) == 0,
                     {status.st_mtim.tv_sec, status.st_mtim.tv_nsec}};
    }

    const std::string& path_;
    std::string name_;
    FileDescriptor directory_;
    std::string problem_;
};

template <class T>
T load(const char* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

}  // namespace

std::string RingLog::path(const std::string& fileName) {
    if (const char* directory = std::getenv("RINGLOGDIR")) return std::string{directory} + "/" + fileName;
    const char* temporary = std::getenv("TMPDIR");
    std::string name = fileName;
    if (const std::size_t at = name.find("%d"); at != std::string::npos)
        name.replace(at, 2, std::to_string(::getpid()));
    return std::string{temporary != nullptr ? temporary : "/tmp"} + "/" + name;
}

std::string RingLog::initialise(const std::string& path, unsigned argumentOctets, unsigned firstSlot,
                                unsigned files, unsigned kibibytes) {
    close();
    const std::size_t size = std::size_t{kibibytes} * 1024;
    if (files != 1 || argumentOctets > 24 || size < 2 * slotOctets)
        return "ring log: parameters out of range";
    path_ = path;
    slots_ = size / slotOctets - 1;
    argumentOctets_ = argumentOctets;
    firstSlot_ = firstSlot;
    const Location location{path};
    if (!location.problem().empty()) return location.problem();
    location.clear();
    return open();
}

std::string RingLog::reopen() {
    if (path_.empty()) return {};
    close();
    return open();
}

std::string RingLog::open() {
    const Location location{path_};
    if (!location.problem().empty()) return location.problem();
    if (std::string problem = location.putAside(); !problem.empty()) return problem;
    const std::size_t size = (slots_ + 1) * slotOctets;
    fd_ = location.create();
    if (!fd_) return failure(path_, errno);
    void* mapped = MAP_FAILED;
    ::flock(fd_.get(), LOCK_EX | LOCK_NB);
    // Allocated now, so that a full disk is an error here and not a fatal signal at some later record.
    const int full = ::posix_fallocate(fd_.get(), 0, static_cast<off_t>(size));
    if (full == 0) mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (mapped == MAP_FAILED) {
        const int error = full != 0 ? full : errno;
        location.remove();
        close();
        return failure(path_, error);
    }
    memory_ = static_cast<unsigned char*>(mapped);
    sequence_ = 1 + firstSlot_;
    const std::uint64_t slots = slots_;
    const std::array<std::int64_t, 2> clocks{clocks_.loop.time_since_epoch().count(),
                                             clocks_.wall.time_since_epoch().count()};
    std::memcpy(memory_ + magic.size(), &slots, sizeof slots);
    std::memcpy(memory_ + clocksAt, clocks.data(), sizeof clocks);
    std::memcpy(memory_, magic.data(), magic.size());
    return {};
}

void RingLog::store(Time time, std::string_view label, const std::array<std::uint64_t, 3>& arguments) {
    unsigned char* slot = memory_ + slotOctets * (1 + (sequence_ - 1) % slots_);
    const std::int64_t nanoseconds = time.time_since_epoch().count();
    const std::uint64_t none = 0;
    // The number comes last: a slot whose writing was cut short reads as never written.
    std::memcpy(slot, &none, sizeof none);
    std::memcpy(slot + timeAt, &nanoseconds, sizeof nanoseconds);
    std::memset(slot + labelAt, 0, labelOctets);
    std::memcpy(slot + labelAt, label.data(), std::min(label.size(), labelOctets));
    std::memcpy(slot + argumentsAt, arguments.data(), argumentOctets_);
    std::memcpy(slot, &sequence_, sizeof sequence_);
    ++sequence_;
}

void RingLog::close() {
    if (memory_ != nullptr) ::munmap(std::exchange(memory_, nullptr), (slots_ + 1) * slotOctets);
    fd_.close();
}

std::optional<std::vector<RingRecord>> RingLog::read(const std::string& path) {
    std::ifstream file{path, std::ios::binary};
    const std::string content{std::istreambuf_iterator<char>{file}, {}};
    if (content.size() < slotOctets || !content.starts_with(magic)) return std::nullopt;

    const Time loopStart{Duration{load<std::int64_t>(content.data() + clocksAt)}};
    const WallTime wallStart{Duration{load<std::int64_t>(content.data() + clocksAt + sizeof(std::int64_t))}};
    std::vector<RingRecord> records;
    for (std::size_t at = slotOctets; at + slotOctets <= content.size(); at += slotOctets) {
        const char* slot = content.data() + at;
        RingRecord record;
        record.sequence = load<std::uint64_t>(slot);
        if (record.sequence == 0) continue;
        record.time = Time{Duration{load<std::int64_t>(slot + timeAt)}};
        if (wallStart != WallTime{}) record.wallTime = wallStart + (record.time - loopStart);
        record.label.assign(slot + labelAt, ::strnlen(slot + labelAt, labelOctets));
        for (std::size_t i = 0; i < 3; ++i)
            record.arguments[i] = load<std::uint64_t>(slot + argumentsAt + 8 * i);
        records.push_back(std::move(record));
    }
    std::sort(records.begin(), records.end(),
              [](const RingRecord& a, const RingRecord& b) { return a.sequence < b.sequence; });
    return records;
}

}  // namespace Runtime
