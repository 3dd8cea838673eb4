#include "Linux/queues/TrafficControl.h"

#include "Linux/kernel/NetlinkAttributes.h"

#include <algorithm>
#include <limits>
#include <linux/rtnetlink.h>

namespace Linux {

namespace {

constexpr std::uint32_t htbVersion = 3;
constexpr std::uint32_t htbRateToQuantum = 10;
/// From this rate on, the number has an attribute of its own.
constexpr std::uint64_t wideRate = std::uint64_t{1} << 32;
constexpr std::uint64_t nanosecondsInTick = 64;

NetlinkMessage about(std::uint16_t type, std::uint16_t flags, unsigned ifindex, std::uint32_t handle,
                     std::uint32_t parent) {
    tcmsg target{};
    target.tcm_ifindex = static_cast<int>(ifindex);
    target.tcm_handle = handle;
    target.tcm_parent = parent;
    NetlinkMessage message{type, flags};
    message.part(target);
    return message;
}

/// Appends the options of each kind.
struct QueueOptions {
    NetlinkMessage& message;

    void operator()(const std::monostate&) const {}
    void operator()(const PriorityQueues& queues) const {
        tc_mqprio_qopt options{};
        options.num_tc =
            static_cast<std::uint8_t>(std::min<std::size_t>(queues.queues.size(), TC_QOPT_MAX_QUEUE));
        options.hw = queues.hardware ? 1 : 0;
        std::ranges::copy(queues.classOf, options.prio_tc_map);
        for (std::size_t i = 0; i < options.num_tc; ++i) {
            options.count[i] = queues.queues[i].count;
            options.offset[i] = queues.queues[i].offset;
        }
        // The kernel takes the structure with padding behind it, counted in the attribute's length.
        std::array<std::byte, NLMSG_ALIGN(sizeof options)> padded{};
        std::ranges::copy(std::as_bytes(std::span{&options, 1}), padded.begin());
        message.octets(TCA_OPTIONS, padded);
    }
    void operator()(const CreditShaper& shaper) const {
        tc_cbs_qopt options{};
        options.offload = shaper.hardware ? 1 : 0;
        options.hicredit = shaper.credits.hiCredit;
        options.locredit = shaper.credits.loCredit;
        options.idleslope = shaper.credits.idleSlope;
        options.sendslope = shaper.credits.sendSlope;
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) { m.attribute(TCA_CBS_PARMS, options); });
    }
    void operator()(const TokenBuckets& buckets) const {
        tc_htb_glob options{};
        options.version = htbVersion;
        options.rate2quantum = htbRateToQuantum;
        options.defcls = buckets.defaultMinor;
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) { m.attribute(TCA_HTB_INIT, options); });
    }
    void operator()(const FrameFifo& fifo) const { message.attribute(TCA_OPTIONS, tc_fifo_qopt{fifo.limit}); }
};

PriorityQueues decodePriorityQueues(const nlattr& attribute) {
    const auto options = number<tc_mqprio_qopt>(attribute);
    PriorityQueues queues;
    queues.hardware = options.hw != 0;
    std::ranges::copy(options.prio_tc_map, queues.classOf.begin());
    for (std::size_t i = 0; i < std::min<std::size_t>(options.num_tc, TC_QOPT_MAX_QUEUE); ++i)
        queues.queues.push_back({options.count[i], options.offset[i]});
    return queues;
}

CreditShaper decodeCreditShaper(const nlattr& attribute) {
    CreditShaper shaper;
    eachAttribute(attribute, [&](const nlattr& inside) {
        if (mnl_attr_get_type(&inside) != TCA_CBS_PARMS) return;
        const auto options = number<tc_cbs_qopt>(inside);
        shaper.credits = {options.idleslope, options.sendslope, options.hicredit, options.locredit};
        shaper.hardware = options.offload != 0;
    });
    return shaper;
}

TokenBuckets decodeTokenBuckets(const nlattr& attribute) {
    TokenBuckets buckets;
    eachAttribute(attribute, [&](const nlattr& inside) {
        if (mnl_attr_get_type(&inside) == TCA_HTB_INIT)
            buckets.defaultMinor = number<tc_htb_glob>(inside).defcls;
    });
    return buckets;
}

void decodeOptions(const nlattr& attribute, Qdisc& qdisc) {
    if (qdisc.kind == "mqprio") qdisc.options = decodePriorityQueues(attribute);
    if (qdisc.kind == "cbs") qdisc.options = decodeCreditShaper(attribute);
    if (qdisc.kind == "htb") qdisc.options = decodeTokenBuckets(attribute);
    if (qdisc.kind == "pfifo") qdisc.options = FrameFifo{number<tc_fifo_qopt>(attribute).limit};
}

tc_ratespec rateOf(std::uint64_t rate, std::uint16_t overhead) {
    tc_ratespec kernelRate{};
    // With the link layer given, the kernel needs no table of transmission times.
    kernelRate.linklayer = TC_LINKLAYER_ETHERNET;
    kernelRate.overhead = overhead;
    kernelRate.rate =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(rate, std::numeric_limits<std::uint32_t>::max()));
    return kernelRate;
}

/// The kind that a message tells of, and its options, in whatever order they stand.
struct KindAndOptions {
    explicit KindAndOptions(const nlmsghdr& message) {
        eachAttribute(message, sizeof(tcmsg), [this](const nlattr& attribute) {
            if (mnl_attr_get_type(&attribute) == TCA_KIND) kind = text(attribute);
            if (mnl_attr_get_type(&attribute) == TCA_OPTIONS) options = &attribute;
        });
    }
    std::string_view kind;
    const nlattr* options = nullptr;
};

std::optional<tcmsg> target(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(tcmsg)) return std::nullopt;
    const auto* target = static_cast<const tcmsg*>(mnl_nlmsg_get_payload(&message));
    return target->tcm_ifindex > 0 ? std::optional{*target} : std::nullopt;
}

}  // namespace

std::uint32_t burstTicks(std::uint64_t octets, std::uint64_t rate) {
    const std::uint64_t ticks = octets * 1'000'000'000 / (rate * nanosecondsInTick);
    return static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(ticks, 1, std::numeric_limits<std::uint32_t>::max()));
}

NetlinkMessage newQdisc(const Qdisc& qdisc, std::uint16_t flags) {
    NetlinkMessage message = about(RTM_NEWQDISC, flags, qdisc.ifindex, qdisc.handle, qdisc.parent);
    message.text(TCA_KIND, qdisc.kind);
    std::visit(QueueOptions{message}, qdisc.options);
    return message;
}

NetlinkMessage deleteQdisc(const Qdisc& qdisc) {
    NetlinkMessage message = about(RTM_DELQDISC, requestAck, qdisc.ifindex, qdisc.handle, qdisc.parent);
    message.text(TCA_KIND, qdisc.kind);
    return message;
}

NetlinkMessage newClass(const TokenBucketClass& change, std::uint16_t flags) {
    NetlinkMessage message = about(RTM_NEWTCLASS, flags, change.ifindex, change.id, change.parent);
    tc_htb_opt options{};
    options.rate = rateOf(change.rate, change.overhead);
    options.ceil = rateOf(change.ceiling, change.overhead);
    options.buffer = change.burst;
    options.cbuffer = change.ceilingBurst;
    options.quantum = change.quantum;
    options.prio = change.priority;
    message.text(TCA_KIND, "htb");
    message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) {
        if (change.rate >= wideRate) m.attribute(TCA_HTB_RATE64, change.rate);
        if (change.ceiling >= wideRate) m.attribute(TCA_HTB_CEIL64, change.ceiling);
        m.attribute(TCA_HTB_PARMS, options);
    });
    return message;
}

NetlinkMessage deleteClass(unsigned ifindex, std::uint32_t id, std::uint32_t parent) {
    return about(RTM_DELTCLASS, requestAck, ifindex, id, parent);
}

std::optional<Qdisc> decodeQdisc(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWQDISC && message.nlmsg_type != RTM_DELQDISC) return std::nullopt;
    const auto where = target(message);
    if (!where) return std::nullopt;
    const KindAndOptions found{message};
    Qdisc qdisc{static_cast<unsigned>(where->tcm_ifindex),
                where->tcm_handle,
                where->tcm_parent,
                std::string{found.kind},
                {}};
    if (found.options != nullptr) decodeOptions(*found.options, qdisc);
    return qdisc;
}

std::optional<TokenBucketClass> decodeClass(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWTCLASS && message.nlmsg_type != RTM_DELTCLASS) return std::nullopt;
    const auto where = target(message);
    const bool deleted = message.nlmsg_type == RTM_DELTCLASS;
    const KindAndOptions found{message};
    // A request to delete need not name the kind.
    if (!where || (found.kind != "htb" && !(deleted && found.kind.empty()))) return std::nullopt;
    TokenBucketClass decoded;
    decoded.ifindex = static_cast<unsigned>(where->tcm_ifindex);
    decoded.id = where->tcm_handle;
    // Asked for below the discipline itself, a class is said to be a root.
    decoded.parent = where->tcm_parent == TC_H_ROOT ? TC_H_MAJ(where->tcm_handle) : where->tcm_parent;
    if (found.options == nullptr) return decoded;
    eachAttribute(*found.options, [&](const nlattr& attribute) {
        switch (mnl_attr_get_type(&attribute)) {
            case TCA_HTB_PARMS: {
                const auto options = number<tc_htb_opt>(attribute);
                if (decoded.rate == 0) decoded.rate = options.rate.rate;
                if (decoded.ceiling == 0) decoded.ceiling = options.ceil.rate;
                decoded.burst = options.buffer;
                decoded.ceilingBurst = options.cbuffer;
                decoded.quantum = options.quantum;
                decoded.priority = options.prio;
                decoded.overhead = options.rate.overhead;
                break;
            }
            case TCA_HTB_RATE64:
                decoded.rate = number<std::uint64_t>(attribute);
                break;
            case TCA_HTB_CEIL64:
                decoded.ceiling = number<std::uint64_t>(attribute);
                break;
            default:
                break;
        }
    });
    return decoded;
}

}  // namespace Linux
