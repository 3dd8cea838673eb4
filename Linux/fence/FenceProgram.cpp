#include "Linux/fence/FenceProgram.h"

#include "Linux/fence/Assembler.h"
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

/// What stays in its register over calls.
constexpr std::uint8_t frame = BPF_REG_6;
constexpr std::uint8_t tag = BPF_REG_7;
constexpr std::uint8_t tagProtocol = BPF_REG_8;
constexpr std::uint8_t metered = BPF_REG_9;
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
    Program(const FenceRules& rules, const ProgramTables& tables) : rules_{rules}, tables_{tables} {}

    std::vector<bpf_insn> made() && {
        code_.move(frame, BPF_REG_1);
        if (rules_.mvrp) endHere(mvrpType);
        if (rules_.guarded) guard();
        if (rules_.metering != Metering::none) meter();
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
        lookUp(tables_.fence);
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
            lookUpStream(tables_.fence);
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
    void lookUp(int table) {
        code_.store(BPF_H, BPF_REG_10, keyPart(offsetof(FenceKey, vlan)), BPF_REG_2);
        code_.store(BPF_W, BPF_REG_10, keyPart(offsetof(FenceKey, port)), BPF_REG_3);
        code_.table(BPF_REG_1, table);
        code_.move(BPF_REG_2, BPF_REG_10);
        code_.plus(BPF_REG_2, keyPlace);
        code_.call(BPF_FUNC_map_lookup_elem);
    }

    /// The key of the frame that came in here with that tag.
    void lookUpStream(int table) {
        code_.move(BPF_REG_2, tag);
        code_.mask(BPF_REG_2, 0xFFF);
        code_.load(BPF_W, BPF_REG_3, frame, offsetof(__sk_buff, ifindex));
        lookUp(table);
    }

    /// Counts the frames of streams, and those that are over the reservation: a frame is when the time that
    /// it and those before it need at the reserved rate lies further ahead than the stream's bursts reach.
    void meter() {
        Assembler::Jumps other;
        code_.load(BPF_W, BPF_REG_2, frame, offsetof(__sk_buff, vlan_present));
        code_.jumpIf(BPF_JEQ, BPF_REG_2, 0, other);
        code_.load(BPF_W, tag, frame, offsetof(__sk_buff, vlan_tci));
        loadAddress(other);
        lookUpStream(tables_.meter);
        code_.jumpIfNull(BPF_REG_0, other);
        code_.move(metered, BPF_REG_0);

        Assembler::Jumps own;
        code_.move(BPF_REG_2, tag);
        code_.shiftRight(BPF_REG_2, tagPriorityShift);
        code_.load(BPF_W, BPF_REG_3, metered, offsetof(MeterEntry, priority));
        code_.jumpIfOther(BPF_JEQ, BPF_REG_2, BPF_REG_3, own);
        count(offsetof(MeterEntry, otherPriority));
        code_.jump(other);

        code_.land(own);
        constexpr std::uint8_t now = BPF_REG_0;
        constexpr std::uint8_t need = BPF_REG_2;
        constexpr std::uint8_t due = BPF_REG_1;
        code_.call(BPF_FUNC_ktime_get_ns);
        code_.store(BPF_DW, metered, offsetof(MeterEntry, last), now);
        count(offsetof(MeterEntry, frames));
        code_.load(BPF_W, need, frame, offsetof(__sk_buff, len));
        code_.plus(need, -ETH_HLEN);
        code_.addTo(metered, offsetof(MeterEntry, octets), need);
        Assembler::Jumps sized;
        code_.jumpIf(BPF_JGT, need, MeterEntry::padded, sized);
        code_.load(BPF_W, BPF_REG_3, metered, offsetof(MeterEntry, smallest));
        code_.jumpIfOther(BPF_JLE, need, BPF_REG_3, sized);
        code_.move(need, BPF_REG_3);
        code_.land(sized);
        code_.plus(need, MeterEntry::overhead);
        code_.load(BPF_DW, BPF_REG_3, metered, offsetof(MeterEntry, octetTime));
        code_.times(need, BPF_REG_3);
        code_.shiftRight(need, MeterEntry::timeShift);
        Assembler::Jumps waiting;
        code_.load(BPF_DW, due, metered, offsetof(MeterEntry, due));
        code_.jumpIfOther(BPF_JGE, due, now, waiting);
        code_.move(due, now);
        code_.land(waiting);
        code_.plusOther(due, need);
        Assembler::Jumps over;
        code_.move(BPF_REG_3, due);
        code_.minusOther(BPF_REG_3, now);
        code_.load(BPF_DW, BPF_REG_4, metered, offsetof(MeterEntry, burst));
        code_.jumpIfOther(BPF_JGT, BPF_REG_3, BPF_REG_4, over);
        code_.store(BPF_DW, metered, offsetof(MeterEntry, due), due);
        code_.jump(other);

        code_.land(over);
        count(offsetof(MeterEntry, over));
        if (rules_.metering == Metering::police) code_.jump(drop_);
        code_.land(other);
    }

    void count(std::size_t counter) {
        code_.set(BPF_REG_1, 1);
        code_.addTo(metered, counter, BPF_REG_1);
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
    const ProgramTables tables_;
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

std::vector<bpf_insn> fenceProgram(const FenceRules& rules, const ProgramTables& tables) {
    return Program{rules, tables}.made();
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
