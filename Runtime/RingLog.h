/// The ring log: a file of fixed size that keeps the last records of what the process did, also when the
/// process dies without warning (the file is mapped memory; the kernel keeps what was written).
///
/// File: one header of 64 octets, then slots of 64 octets, overwritten in a circle.  Numbers in the machine's
/// order.
///     header: "RINGLOG1", u64 number of slots, i64 ns on the loop's clock and i64 ns since 1970 when the
///     file was made (both 0: not known), zeros slot:   u64 sequence number (0: never written), i64 time in
///     ns, 24 octets label, 24 octets arguments (three u64)
///
/// A process holds a lock on its file for as long as it lives, so a file without one is that of a process
/// that has ended.  The newest of those is kept beside the new file, as the last words of a process that
/// crashed; the others go.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Time.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Runtime {

struct RingRecord {
    std::uint64_t sequence = 0;
    Time time{};
    std::optional<WallTime> wallTime{};  ///< where the file tells both clocks
    std::string label{};                 ///< at most 24 octets are kept
    std::array<std::uint64_t, 3> arguments{};
};

class RingLog {
public:
    RingLog() = default;
    RingLog(const RingLog&) = delete;
    RingLog& operator=(const RingLog&) = delete;
    ~RingLog() { close(); }

    /// Where the file of that name lies: in the directory that the environment variable RINGLOGDIR names,
    /// else in the system's directory for temporary files, where a "%d" in the name is filled with the
    /// process number.
    static std::string path(const std::string& fileName);

    /// What both clocks say now: times in files that are made later can be told by either.
    void clocksAre(Time loop, WallTime wall) { clocks_ = {loop, wall}; }

    /// Opens the file that later records go to.  One that an earlier process left under that name gets
    /// "-last" before its extension; where the name carries the process number, ring logs of ended processes
    /// are removed but for the newest.  Files of processes that still run and of other owners, files that are
    /// no ring logs and links are left alone, and in the way where they have the name; so is a directory in
    /// which anybody may replace files. `argumentOctets` is what a record carries beside its label (at most
    /// 24), `firstSlot` the slot that is written first, `files` how many files take turns (only 1 is known),
    /// `kibibytes` the size.  Empty on success, else what went wrong; until then records are dropped.
    std::string initialise(const std::string& path, unsigned argumentOctets, unsigned firstSlot,
                           unsigned files, unsigned kibibytes);
    /// Goes on in a fresh file; what was written until now is found under "-last".  Does nothing before the
    /// first `initialise`.
    std::string reopen();

    void write(Time time, std::string_view label, std::uint64_t a = 0, std::uint64_t b = 0,
               std::uint64_t c = 0) {
        if (memory_ != nullptr) store(time, label, {a, b, c});
    }

    /// Reads a file, oldest record first; empty when it is no ring log.
    static std::optional<std::vector<RingRecord>> read(const std::string& path);

private:
    struct Clocks {
        Time loop{};
        WallTime wall{};
    };
    [[nodiscard]] std::string open();
    void store(Time time, std::string_view label, const std::array<std::uint64_t, 3>& arguments);
    void close();

    Clocks clocks_;
    std::string path_;
    unsigned firstSlot_ = 0;
    FileDescriptor fd_;  ///< holds the lock
    unsigned char* memory_ = nullptr;
    std::size_t slots_ = 0;
    std::size_t argumentOctets_ = 0;
    std::uint64_t sequence_ = 1;
};

}  // namespace Runtime
