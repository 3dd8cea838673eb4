/// The ring log: a file of fixed size that keeps the last records of what the process did, also when the process
/// dies without warning (the file is mapped memory; the kernel keeps what was written).
///
/// File: one 64-byte header, then slots of 64 bytes, overwritten in a circle.  All numbers little-endian.
///     header: "RINGLOG1", u32 slot count, u32 argument bytes in a slot, zeros
///     slot:   u64 sequence number (0: never written), i64 time in ns, 24 bytes label, three u64 arguments
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Runtime/Time.h"

namespace Runtime {

struct RingRecord {
    std::uint64_t sequence = 0;
    Time time{};
    std::string label;
    std::array<std::uint64_t, 3> arguments{};
};

class RingLog {
public:
    RingLog() = default;
    RingLog(const RingLog&) = delete;
    RingLog& operator=(const RingLog&) = delete;
    ~RingLog();

    /// The file that stands for the `%d` form when no directory is given: the process number fills the blank.
    static std::string fileName(const std::string& agentName);

    /// Opens (anew) the file that later records go to.  `argumentBytes` is what a record can carry (at most 24),
    /// `level` the lowest level that is written, `mirrors` further copies of the file (none are made), `kibibytes`
    /// the file's size.  Empty on success, else what went wrong; records are then dropped silently.
    std::string initialise(const std::string& file, unsigned argumentBytes, unsigned level, unsigned mirrors,
                           unsigned kibibytes);

    void write(Time time, std::string_view label, std::uint64_t a = 0, std::uint64_t b = 0, std::uint64_t c = 0) {
        if (memory_ != nullptr) store(time, label, {a, b, c});
    }

    /// Reads a file, oldest record first; empty when it is no ring log.
    static std::optional<std::vector<RingRecord>> read(const std::string& file);

private:
    void store(Time time, std::string_view label, const std::array<std::uint64_t, 3>& arguments);
    void close();

    unsigned char* memory_ = nullptr;
    std::size_t size_ = 0;
    std::uint64_t next_ = 1;
};

}  // namespace Runtime
