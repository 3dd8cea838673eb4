#include "Linux/fence/FenceProgram.h"

#include "Linux/fence/BpfCall.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/pkt_cls.h>

namespace Linux {

namespace {

/// Instructions in the making, in the names of the kernel's own description of them.
class Assembler {
public:
    /// A place to jump to, further on.
    using Jumps = std::vector<std::size_t>;

    void move(std::uint8_t to, std::uint8_t from) { add(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
    void set(std::uint8_t to, std::int32_t value) { add(BPF_ALU64 | BPF_MOV | BPF_K, to, 0, 0, value); }
    void plus(std::uint8_t to, std::int32_t value) { add(BPF_ALU64 | BPF_ADD | BPF_K, to, 0, 0, value); }
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
    void table(std::uint8_t to, int descriptor) {
        add(BPF_LD | BPF_DW | BPF_IMM, to, BPF_PSEUDO_MAP_FD, 0, descriptor);
        add(0, 0, 0, 0, 0);
    }
    void call(bpf_func_id helper) { add(BPF_JMP | BPF_CALL, 0, 0, 0, helper); }
    void jumpIf(std::uint8_t comparison, std::uint8_t what, std::int32_t value, Jumps& jumps) {
        jumps.push_back(code_.size());
        add(static_cast<std::uint8_t>(BPF_JMP32 | comparison | BPF_K), what, 0, 0, value);
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

/// What stays in its register over calls.
constexpr std::uint8_t frame = BPF_REG_6;
constexpr std::uint8_t tag = BPF_REG_7;
constexpr std::uint8_t tagProtocol = BPF_REG_8;
constexpr int tagPriorityShift = 13;
/// Where the key lies on the stack, seen from its end.
constexpr std::int32_t keyPlace = -16;
constexpr auto keyPart(std::size_t part) { return static_cast<std::size_t>(keyPlace) + part; }

/// 91:e0:f0:00:xx:xx are the addresses for streams; those of 91:e0:f0:00:ff:xx are for the protocols that
/// give the others out.
constexpr std::array<std::uint8_t, 4> streamRange{0x91, 0xE0, 0xF0, 0x00};
constexpr std::int32_t protocolOctet = 0xFF;

/// A bridge that takes part in MVRP passes none of its frames on (IEEE 802.1Q 8.13.6); the kernel would.
constexpr std::uint16_t mvrpType = 0x88F5;

class Program {
public:
    Program(const FenceRules& rules, int table) : rules_{rules}, table_{table} {}

    std::vector<bpf_insn> made() && {
        code_.move(frame, BPF_REG_1);
        if (rules_.mvrp) endHere(mvrpType);
        if (rules_.guarded) guard();
        if ((rules_.closed | rules_.streams) != 0) priority();
        code_.land(pass_);
        code_.end(TC_ACT_UNSPEC);
        // The kernel takes no instructions that nothing leads to.
        if (drop_.empty()) return std::move(code_).made();
        // Without its tag it would go on into another VLAN.
        code_.land(drop_);
        code_.end(TC_ACT_SHOT);
        return std::move(code_).made();
    }

private:
    /// Untagged frames of that type go no further than to the sockets that hear all frames.
    void endHere(std::uint16_t type) {
        Assembler::Jumps tagged;
        code_.load(BPF_W, BPF_REG_2, frame, offsetof(__sk_buff, vlan_present));
        code_.jumpIf(BPF_JNE, BPF_REG_2, 0, tagged);
        code_.load(BPF_W, BPF_REG_2, frame, offsetof(__sk_buff, protocol));
        code_.jumpIf(BPF_JEQ, BPF_REG_2, htons(type), drop_);
        code_.land(tagged);
    }

    void guard() {
        Assembler::Jumps other;
        loadAddress(other);
        code_.load(BPF_W, BPF_REG_1, BPF_REG_10, keyPart(0));
        code_.jumpIf(BPF_JNE, BPF_REG_1, std::bit_cast<std::int32_t>(streamRange), other);
        code_.load(BPF_B, BPF_REG_1, BPF_REG_10, keyPart(streamRange.size()));
        code_.jumpIf(BPF_JEQ, BPF_REG_1, protocolOctet, other);
        code_.set(BPF_REG_2, FenceKey::anyVlan);
        code_.set(BPF_REG_3, 0);
        lookUp();
        code_.jumpIfNull(BPF_REG_0, drop_);
        code_.land(other);
    }

    void priority() {
        code_.load(BPF_W, BPF_REG_2, frame, offsetof(__sk_buff, vlan_present));
        code_.jumpIf(BPF_JEQ, BPF_REG_2, 0, pass_);
        code_.load(BPF_W, tag, frame, offsetof(__sk_buff, vlan_tci));
        Assembler::Jumps lower;
        if (rules_.closed != 0) inMask(rules_.closed, BPF_JNE, lower);
        if (rules_.streams != 0) {
            inMask(rules_.streams, BPF_JEQ, pass_);
            loadAddress(lower);
            code_.move(BPF_REG_2, tag);
            code_.mask(BPF_REG_2, 0xFFF);
            code_.load(BPF_W, BPF_REG_3, frame, offsetof(__sk_buff, ifindex));
            lookUp();
            code_.jumpIfNull(BPF_REG_0, lower);
        }
        code_.jump(pass_);
        code_.land(lower);
        takePriority();
    }

    /// Jumps if the tag's priority is not one of these (BPF_JEQ), or is (BPF_JNE).
    void inMask(std::uint8_t priorities, std::uint8_t comparison, Assembler::Jumps& jumps) {
        code_.move(BPF_REG_2, tag);
        code_.shiftRight(BPF_REG_2, tagPriorityShift);
        code_.set(BPF_REG_3, priorities);
        code_.shiftRightBy(BPF_REG_3, BPF_REG_2);
        code_.mask(BPF_REG_3, 1);
        code_.jumpIf(comparison, BPF_REG_3, 0, jumps);
    }

    /// The destination into the key.
    void loadAddress(Assembler::Jumps& failed) {
        code_.move(BPF_REG_1, frame);
        code_.set(BPF_REG_2, 0);
        code_.move(BPF_REG_3, BPF_REG_10);
        code_.plus(BPF_REG_3, keyPlace);
        code_.set(BPF_REG_4, sizeof FenceKey::address);
        code_.call(BPF_FUNC_skb_load_bytes);
        code_.jumpIf(BPF_JNE, BPF_REG_0, 0, failed);
    }

    /// The key with the VLAN in register 2 and the port in register 3.
    void lookUp() {
        code_.store(BPF_H, BPF_REG_10, keyPart(offsetof(FenceKey, vlan)), BPF_REG_2);
        code_.store(BPF_W, BPF_REG_10, keyPart(offsetof(FenceKey, port)), BPF_REG_3);
        code_.table(BPF_REG_1, table_);
        code_.move(BPF_REG_2, BPF_REG_10);
        code_.plus(BPF_REG_2, keyPlace);
        code_.call(BPF_FUNC_map_lookup_elem);
    }

    void takePriority() {
        // Where a second tag follows, older kernels (6.1) leave the frame four octets short when they push
        // the first one again.
        code_.load(BPF_W, BPF_REG_2, frame, offsetof(__sk_buff, protocol));
        for (const std::uint16_t type : {std::uint16_t{ETH_P_8021Q}, std::uint16_t{ETH_P_8021AD}})
            code_.jumpIf(BPF_JEQ, BPF_REG_2, htons(type), drop_);
        code_.load(BPF_W, tagProtocol, frame, offsetof(__sk_buff, vlan_proto));
        code_.move(BPF_REG_1, frame);
        code_.call(BPF_FUNC_skb_vlan_pop);
        code_.jumpIf(BPF_JNE, BPF_REG_0, 0, drop_);
        code_.mask(tag, (1 << tagPriorityShift) - 1);
        code_.move(BPF_REG_1, frame);
        code_.move(BPF_REG_2, tagProtocol);
        code_.move(BPF_REG_3, tag);
        code_.call(BPF_FUNC_skb_vlan_push);
        code_.jumpIf(BPF_JNE, BPF_REG_0, 0, drop_);
        code_.store(BPF_W, frame, offsetof(__sk_buff, priority), BPF_REG_0);
    }

    const FenceRules rules_;
    const int table_;
    Assembler code_;
    Assembler::Jumps pass_;
    Assembler::Jumps drop_;
};

std::string noProgram(int error) { return bpfProblem("the kernel takes no program for frames", error); }

}  // namespace

bool isStreamAddress(EthAddr address) {
    const auto& octets = address.octets();
    return std::equal(streamRange.begin(), streamRange.end(), octets.begin()) &&
           octets[streamRange.size()] != protocolOctet;
}

std::vector<bpf_insn> fenceProgram(const FenceRules& rules, int table) {
    return Program{rules, table}.made();
}

std::string loadProgram(const std::vector<bpf_insn>& instructions, LoadedProgram& loaded) {
    bpf_attr load = bpfAttributes();
    load.prog_type = BPF_PROG_TYPE_SCHED_CLS;
    load.insns = bpfAddress(instructions.data());
    load.insn_cnt = static_cast<std::uint32_t>(instructions.size());
    load.license = bpfAddress("");
    constexpr std::string_view name = "msrpd_fence";
    std::memcpy(load.prog_name, name.data(), name.size());
    loaded.descriptor = Runtime::FileDescriptor{static_cast<int>(bpfCall(BPF_PROG_LOAD, load))};
    if (!loaded.descriptor) return noProgram(errno);

    bpf_prog_info info;
    std::memset(&info, 0, sizeof info);
    bpf_attr ask = bpfAttributes();
    ask.info.bpf_fd = static_cast<std::uint32_t>(loaded.descriptor.get());
    ask.info.info_len = sizeof info;
    ask.info.info = bpfAddress(&info);
    if (bpfCall(BPF_OBJ_GET_INFO_BY_FD, ask) < 0) return noProgram(errno);
    loaded.id = info.id;
    return {};
}

}  // namespace Linux
