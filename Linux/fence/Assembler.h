/// Puts programs for the kernel together, instruction by instruction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/bpf.h>
#include <utility>
#include <vector>

namespace Linux {

/// Instructions in the making, in the names of the kernel's own description of them.
class Assembler {
public:
    /// A place to jump to, further on.
    using Jumps = std::vector<std::size_t>;

    void move(std::uint8_t to, std::uint8_t from) { add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
    void set(std::uint8_t to, std::int32_t value) { add(BPF_ALU64 | BPF_MOV | BPF_K, to, 0, 0, value); }
    void plus(std::uint8_t to, std::int32_t value) { add(BPF_ALU64 | BPF_ADD | BPF_K, to, 0, 0, value); }
    void times(std::uint8_t to, std::uint8_t by) { add(BPF_ALU64 | BPF_MUL | BPF_X, to, by, 0, 0); }
    void plusOther(std::uint8_t to, std::uint8_t what) { add(BPF_ALU64 | BPF_ADD | BPF_X, to, what, 0, 0); }
    void minusOther(std::uint8_t to, std::uint8_t what) { add(BPF_ALU64 | BPF_SUB | BPF_X, to, what, 0, 0); }
    void mask(std::uint8_t to, std::int32_t value) { add(BPF_ALU64 | BPF_AND | BPF_K, to, 0, 0, value); }
    void shiftRight(std::uint8_t to, std::int32_t bits) { add(BPF_ALU64 | BPF_RSH | BPF_K, to, 0, 0, bits); }
    void shiftRightBy(std::uint8_t to, std::uint8_t by) { add(BPF_ALU64 | BPF_RSH | BPF_X, to, by, 0, 0); }
    void load(std::uint8_t size, std::uint8_t to, std::uint8_t base, std::size_t offset) {
        add(static_cast<std::uint8_t>(BPF_LDX | BPF_MEM | size), to, base, static_cast<std::int16_t>(offset),
            0);
    }
    void store(std::uint8_t size, std::uint8_t base, std::size_t offset, std::uint8_t from) {
        add(static_cast<std::uint8_t>(BPF_STX | BPF_MEM | size), base, from,
            static_cast<std::int16_t>(offset), 0);
    }
    /// 64 bits, in one step that no other processor sees half of.
    void addTo(std::uint8_t base, std::size_t offset, std::uint8_t what) {
        add(BPF_STX | BPF_ATOMIC | BPF_DW, base, what, static_cast<std::int16_t>(offset), BPF_ADD);
    }
    void table(std::uint8_t to, int descriptor) {
        add(BPF_LD | BPF_DW | BPF_IMM, to, BPF_PSEUDO_MAP_FD, 0, descriptor);
        add(0, 0, 0, 0, 0);
    }
    void call(bpf_func_id helper) { add(BPF_JMP | BPF_CALL, 0, 0, 0, helper); }
    void jumpIf(std::uint8_t comparison, std::uint8_t what, std::int32_t value, Jumps& jumps) {
        jumps.push_back(code_.size());
        add(static_cast<std::uint8_t>(BPF_JMP32 | comparison | BPF_K), what, 0, 0, value);
    }
    /// All 64 bits of both.
    void jumpIfOther(std::uint8_t comparison, std::uint8_t what, std::uint8_t other, Jumps& jumps) {
        jumps.push_back(code_.size());
        add(static_cast<std::uint8_t>(BPF_JMP | comparison | BPF_X), what, other, 0, 0);
    }
    /// Pointers are compared whole.
    void jumpIfNull(std::uint8_t pointer, Jumps& jumps) {
        jumps.push_back(code_.size());
        add(BPF_JMP | BPF_JEQ | BPF_K, pointer, 0, 0, 0);
    }
    void jump(Jumps& jumps) {
        jumps.push_back(code_.size());
        add(BPF_JMP | BPF_JA, 0, 0, 0, 0);
    }
    /// These jumps lead here.
    void land(const Jumps& jumps) {
        for (const std::size_t at : jumps) code_[at].off = static_cast<std::int16_t>(code_.size() - at - 1);
    }
    void end(std::int32_t result) {
        set(BPF_REG_0, result);
        add(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);
    }
    std::vector<bpf_insn> made() && { return std::move(code_); }

private:
    void add(std::uint8_t code, std::uint8_t to, std::uint8_t from, std::int16_t offset, std::int32_t value) {
        bpf_insn instruction{};
        instruction.code = code;
        instruction.dst_reg = to & 0xF;
        instruction.src_reg = from & 0xF;
        instruction.off = offset;
        instruction.imm = value;
        code_.push_back(instruction);
    }

    std::vector<bpf_insn> code_;
};

}  // namespace Linux
