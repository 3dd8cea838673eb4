#include "Linux/queues/ClassProgram.h"

#include <linux/filter.h>

namespace Linux {

ClassProgram classProgram(ClassPriorities priorities, std::uint32_t classA, std::uint32_t classB) {
    // The kernel's own fields of a frame.
    constexpr auto tagPresent = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_VLAN_TAG_PRESENT);
    constexpr auto tag = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_VLAN_TAG);
    constexpr std::uint16_t loadOctet = BPF_LD | BPF_B | BPF_ABS;
    constexpr std::uint16_t loadTwo = BPF_LD | BPF_H | BPF_ABS;
    constexpr std::uint16_t ifEqual = BPF_JMP | BPF_JEQ | BPF_K;
    constexpr std::uint16_t result = BPF_RET | BPF_K;
    constexpr std::uint16_t shiftRight = BPF_ALU | BPF_RSH | BPF_K;
    constexpr std::uint32_t prioritiesShift = 13;

    ClassProgram program;
    auto& code = program.instructions;
    code = {{loadOctet, 0, 0, tagPresent},
            {ifEqual, 1, 0, 1},
            {result, 0, 0, 0},
            {loadTwo, 0, 0, tag},
            {shiftRight, 0, 0, prioritiesShift}};
    const std::uint8_t all = priorities.a | priorities.b;
    const std::size_t first = code.size();
    for (std::uint32_t priority = 8; priority-- > 0;) {
        if ((all >> priority & 1) != 0) code.push_back({ifEqual, 0, 0, priority});
    }
    // Behind the comparisons stand three results: for class A, for class B, for all that did not match.
    const std::size_t results = code.size();
    for (std::size_t i = first; i < results; ++i) {
        const auto toResults = static_cast<std::uint8_t>(results - i - 1);
        const bool isA = (priorities.a >> code[i].operand & 1) != 0;
        code[i].jumpTrue = static_cast<std::uint8_t>(toResults + (isA ? 0 : 1));
        code[i].jumpFalse = i + 1 == results ? 2 : 0;
    }
    if (results == first) code.push_back({result, 0, 0, 0});
    code.push_back({result, 0, 0, classA});
    code.push_back({result, 0, 0, classB});
    code.push_back({result, 0, 0, 0});
    return program;
}

}  // namespace Linux
