/// Filters that sort packets: into the classes of a port's queues when they leave, and by the priority in
/// their tag when they come in.
#pragma once

#include "Linux/kernel/NetlinkMessage.h"
#include "Linux/queues/SrQueues.h"

#include <cstdint>
#include <linux/filter.h>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Linux {

/// One instruction of a classic packet filter.
struct FilterInstruction {
    std::uint16_t code = 0;
    std::uint8_t jumpTrue = 0;
    std::uint8_t jumpFalse = 0;
    std::uint32_t operand = 0;
    bool operator==(const FilterInstruction&) const = default;
};

/// "bpf": the program's result is the class; 0 is the default one.
struct ClassProgram {
    std::vector<FilterInstruction> instructions;
    bool operator==(const ClassProgram&) const = default;
};

/// Sorts frames into the SR classes by the priority in the tag that they will leave with: the result is
/// `classA`, `classB`, or 0 for frames of other priorities and for those without a tag.
ClassProgram classProgram(ClassPriorities priorities, std::uint32_t classA, std::uint32_t classB);

/// "flower": a packet whose tag has one priority gets a priority in this machine.
struct TagPriorityRule {
    std::uint8_t tagPriority = 0;
    std::uint32_t packetPriority = 0;
    bool marked = false;  ///< its action has the mark that says whose it is
    bool operator==(const TagPriorityRule&) const = default;
};

/// "bpf" with a program in the kernel that does all the work itself, and whose result is the packet's fate.
struct FrameProgram {
    std::string name;      ///< as people see it, and the mark that says whose it is
    std::uint32_t id = 0;  ///< the kernel's number for it; it does not come again soon
    int descriptor = -1;   ///< of the program, where the filter is to be made; borrowed
    bool operator==(const FrameProgram& other) const { return name == other.name && id == other.id; }
};

struct Filter {
    unsigned ifindex = 0;
    std::uint32_t handle = 0;
    std::uint32_t parent = 0;
    std::uint16_t preference = 0;  ///< lower ones are asked first
    std::uint16_t protocol = 0;    ///< EtherType
    std::string kind;
    std::variant<std::monostate, ClassProgram, TagPriorityRule, FrameProgram> options;
    bool operator==(const Filter&) const = default;
};

/// `flags` as in requestAdd.
NetlinkMessage newFilter(const Filter& filter, std::uint16_t flags);
NetlinkMessage deleteFilter(const Filter& filter);

/// Nothing for messages about something else and for malformed ones, and for what only says that there may be
/// filters of that kind.  A handle of 0 in the news of a deletion stands for all filters of its preference.
std::optional<Filter> decodeFilter(const nlmsghdr& message);

}  // namespace Linux
