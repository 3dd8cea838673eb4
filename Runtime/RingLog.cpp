#include "Runtime/RingLog.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <unistd.h>

namespace Runtime {

namespace {

constexpr std::string_view magic = "RINGLOG1";
constexpr std::size_t slotOctets = 64;
constexpr std::size_t timeAt = 8;
constexpr std::size_t labelAt = 16;
constexpr std::size_t labelOctets = 24;
constexpr std::size_t argumentsAt = labelAt + labelOctets;
static_assert(argumentsAt + 3 * sizeof(std::uint64_t) == slotOctets);

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

    // A fresh file: the old one may be open elsewhere, and a planted link must not be followed.
    ::unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return "ring log " + path + ": " + std::strerror(errno);
    void* mapped = MAP_FAILED;
    // Allocated now, so that a full disk is an error here and not a fatal signal at some later record.
    const int full = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (full == 0) mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    const int error = full != 0 ? full : errno;
    ::close(fd);
    if (mapped == MAP_FAILED) return "ring log " + path + ": " + std::strerror(error);

    memory_ = static_cast<unsigned char*>(mapped);
    slots_ = size / slotOctets - 1;
    argumentOctets_ = argumentOctets;
    sequence_ = 1 + firstSlot;
    const std::uint64_t slots = slots_;
    std::memcpy(memory_, magic.data(), magic.size());
    std::memcpy(memory_ + magic.size(), &slots, sizeof slots);
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
    if (memory_ == nullptr) return;
    ::munmap(memory_, (slots_ + 1) * slotOctets);
    memory_ = nullptr;
}

std::optional<std::vector<RingRecord>> RingLog::read(const std::string& path) {
    std::ifstream file{path, std::ios::binary};
    const std::string content{std::istreambuf_iterator<char>{file}, {}};
    if (content.size() < slotOctets || !content.starts_with(magic)) return std::nullopt;

    std::vector<RingRecord> records;
    for (std::size_t at = slotOctets; at + slotOctets <= content.size(); at += slotOctets) {
        const char* slot = content.data() + at;
        RingRecord record;
        record.sequence = load<std::uint64_t>(slot);
        if (record.sequence == 0) continue;
        record.time = Time{Duration{load<std::int64_t>(slot + timeAt)}};
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
