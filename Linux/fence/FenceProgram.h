/// The fence as a program for the kernel, which runs it for each frame that comes in on a port.
#pragma once

#include "Linux/fence/FenceRules.h"
#include "Runtime/FileDescriptor.h"
#include "Switch/EthAddr.h"

#include <array>
#include <compare>
#include <cstdint>
#include <linux/bpf.h>
#include <string>
#include <vector>

namespace Linux {

/// What the program looks up: a stream that may keep its priority on a port, or an address that has a group.
struct FenceKey {
    /// In the place of the VLAN for addresses with a group, whose port is 0.
    static constexpr std::uint16_t anyVlan = 0xFFFF;

    std::array<std::uint8_t, 6> address{};
    std::uint16_t vlan = anyVlan;
    std::uint32_t port = 0;  ///< interface index
    auto operator<=>(const FenceKey&) const = default;
};
static_assert(sizeof(FenceKey) == 12, "the program puts it together octet by octet");

/// What the program knows of a stream that is metered, and what it counts.
struct MeterEntry {
    /// Octets around each frame on the wire, and those behind a tag up to which a smaller frame is filled up.
    static constexpr std::int32_t overhead = 42;
    static constexpr std::int32_t padded = 46;
    static constexpr std::int32_t timeShift = 20;

    std::uint64_t octetTime = 0;  ///< of one octet at the reserved rate: nanoseconds times 2^timeShift
    std::uint64_t burst = 0;      ///< nanoseconds that the stream may be ahead of that rate
    std::uint32_t priority = 0;
    std::uint32_t smallest = 0;  ///< octets that a frame which was filled up may have had
    std::uint64_t frames = 0;
    std::uint64_t octets = 0;         ///< behind the tags
    std::uint64_t over = 0;           ///< frames over the reservation
    std::uint64_t otherPriority = 0;  ///< frames that are none of the stream's for their priority
    std::uint64_t last = 0;           ///< frame, on the monotonic clock, in nanoseconds
    std::uint64_t due = 0;            ///< when all frames up to now have had their time
};

/// Descriptors of what the program looks into: of FenceKeys, for `streams` and `guarded`; and of MeterEntries
/// by FenceKeys, for `metering`.
struct ProgramTables {
    int fence = -1;
    int meter = -1;
};

/// Whether it is one of those that streams are sent to.
bool isStreamAddress(EthAddr address);

/// The instructions.  A frame whose priority is taken away keeps its VLAN and its drop eligible bit, and the
/// other filters of the port see it as it is then; one that has a second tag behind the first is dropped.
/// Frames that are not concerned are not touched.
std::vector<bpf_insn> fenceProgram(const FenceRules& rules, const ProgramTables& tables);

/// A program that the kernel has taken.
struct LoadedProgram {
    Runtime::FileDescriptor descriptor;
    std::uint32_t id = 0;  ///< the kernel's number for it
};

/// Empty on success, else why the kernel does not take it.
std::string loadProgram(const std::vector<bpf_insn>& instructions, LoadedProgram& loaded);

}  // namespace Linux
