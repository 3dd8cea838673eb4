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

/// Whether it is one of those that streams are sent to.
bool isStreamAddress(EthAddr address);

/// The instructions.  A frame whose priority is taken away keeps its VLAN and its drop eligible bit, and the
/// other filters of the port see it as it is then; one that has a second tag behind the first is dropped.
/// Frames that are not concerned are not touched.  `table` is
/// the descriptor of a table of FenceKeys, used for `streams` and `guarded` only.
std::vector<bpf_insn> fenceProgram(const FenceRules& rules, int table);

/// A program that the kernel has taken.
struct LoadedProgram {
    Runtime::FileDescriptor descriptor;
    std::uint32_t id = 0;  ///< the kernel's number for it
};

/// Empty on success, else why the kernel does not take it.
std::string loadProgram(const std::vector<bpf_insn>& instructions, LoadedProgram& loaded);

}  // namespace Linux
