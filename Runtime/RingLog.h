/// The ring log: a file of fixed size that keeps the last records of what the process did, also when the
/// process dies without warning (the file is mapped memory; the kernel keeps what was written).
///
/// File: one header of 64 octets, then slots of 64 octets, overwritten in a circle.  Numbers in the machine's
/// order.
///     header: "RINGLOG1", u64 number of slots, zeros
///     slot:   u64 sequence number (0: never written), i64 time in ns, 24 octets label, 24 octets arguments
///     (three u64)
#pragma once

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
    std::string label;  ///< at most 24 octets are kept
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

    /// Opens the file that later records go to, in place of one that an earlier run left.  `argumentOctets`
    /// is what a record carries beside its label (at most 24), `firstSlot` the slot that is written first,
    /// `files` how many files take turns (only 1 is known), `kibibytes` the size.  Empty on success, else
    /// what went wrong; until then records are dropped.
    std::string initialise(const std::string& path, unsigned argumentOctets, unsigned firstSlot,
                           unsigned files, unsigned kibibytes);

    void write(Time time, std::string_view label, std::uint64_t a = 0, std::uint64_t b = 0,
               std::uint64_t c = 0) {
        if (memory_ != nullptr) store(time, label, {a, b, c});
    }

    /// Reads a file, oldest record first; empty when it is no ring log.
    static std::optional<std::vector<RingRecord>> read(const std::string& path);

private:
    void store(Time time, std::string_view label, const std::array<std::uint64_t, 3>& arguments);
    void close();

    unsigned char* memory_ = nullptr;
    std::size_t slots_ = 0;
    std::size_t argumentOctets_ = 0;
    std::uint64_t sequence_ = 1;
};

}  // namespace Runtime
