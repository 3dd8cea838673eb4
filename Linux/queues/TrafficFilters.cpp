#include "Linux/queues/TrafficFilters.h"

#include "Linux/kernel/NetlinkAttributes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <linux/tc_act/tc_skbedit.h>
#include <string_view>

namespace Linux {

namespace {

/// Marks actions as ours; the kernel keeps it for whoever made them.
constexpr std::string_view mark = "msrpd";

static_assert(sizeof(FilterInstruction) == sizeof(sock_filter));

NetlinkMessage about(std::uint16_t type, std::uint16_t flags, const Filter& filter) {
    tcmsg target{};
    target.tcm_ifindex = static_cast<int>(filter.ifindex);
    target.tcm_handle = filter.handle;
    target.tcm_parent = filter.parent;
    target.tcm_info = TC_H_MAKE(std::uint32_t{filter.preference} << 16, htons(filter.protocol));
    NetlinkMessage message{type, flags};
    message.part(target).text(TCA_KIND, filter.kind);
    return message;
}

void flowerFrame(NetlinkMessage& message, std::uint16_t protocol) {
    message.attribute(TCA_FLOWER_FLAGS, std::uint32_t{0});
    message.attribute(TCA_FLOWER_KEY_ETH_TYPE, htons(protocol));
}

struct FilterOptions {
    NetlinkMessage& message;
    const Filter& filter;

    void operator()(const std::monostate&) const {}
    void operator()(const ClassProgram& program) const {
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) {
            m.attribute(TCA_BPF_OPS_LEN, static_cast<std::uint16_t>(program.instructions.size()));
            m.octets(TCA_BPF_OPS, std::as_bytes(std::span{program.instructions}));
        });
    }
    void operator()(const FrameProgram& program) const {
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) {
            m.attribute(TCA_BPF_FD, program.descriptor);
            m.text(TCA_BPF_NAME, program.name);
            m.attribute(TCA_BPF_FLAGS, std::uint32_t{TCA_BPF_FLAG_ACT_DIRECT});
        });
    }
    void operator()(const TagPriorityRule& rule) const {
        tc_skbedit parameters{};
        parameters.action = TC_ACT_PIPE;
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& flower) {
            flower.attribute(TCA_FLOWER_KEY_VLAN_PRIO, rule.tagPriority);
            flower.nest(TCA_FLOWER_ACT, [&](NetlinkMessage& actions) {
                actions.nest(1, [&](NetlinkMessage& action) {
                    action.text(TCA_ACT_KIND, "skbedit");
                    action.nest(TCA_ACT_OPTIONS | NLA_F_NESTED, [&](NetlinkMessage& edit) {
                        edit.attribute(TCA_SKBEDIT_PARMS, parameters);
                        edit.attribute(TCA_SKBEDIT_PRIORITY, rule.packetPriority);
                    });
                    if (rule.marked) action.octets(TCA_ACT_COOKIE, std::as_bytes(std::span{mark}));
                });
            });
            flowerFrame(flower, filter.protocol);
        });
    }
};

std::optional<ClassProgram> decodeProgram(const nlattr& options) {
    std::optional<ClassProgram> program;
    eachAttribute(options, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) != TCA_BPF_OPS) return;
        const auto octets = payload(attribute);
        program.emplace().instructions.resize(octets.size() / sizeof(FilterInstruction));
        if (auto& instructions = program->instructions; !instructions.empty())
            std::memcpy(instructions.data(), octets.data(), instructions.size() * sizeof(FilterInstruction));
    });
    return program;
}

std::optional<FrameProgram> decodeFrameProgram(const nlattr& options) {
    FrameProgram program;
    bool known = false;
    eachAttribute(options, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == TCA_BPF_NAME) program.name = text(attribute);
        if (mnl_attr_get_type(&attribute) != TCA_BPF_ID) return;
        program.id = number<std::uint32_t>(attribute);
        known = true;
    });
    return known ? std::optional{std::move(program)} : std::nullopt;
}

/// Part of a rule is what its action does, part whether it is marked.
bool decodeActions(const nlattr& actions, TagPriorityRule& rule) {
    bool writesPriority = false;
    eachAttribute(actions, [&](const nlattr& action) {
        eachAttribute(action, [&](const nlattr& part) {
            if (mnl_attr_get_type(&part) == TCA_ACT_COOKIE)
                rule.marked = std::ranges::equal(payload(part), std::as_bytes(std::span{mark}));
            if (mnl_attr_get_type(&part) != TCA_ACT_OPTIONS) return;
            eachAttribute(part, [&](const nlattr& edit) {
                if (mnl_attr_get_type(&edit) != TCA_SKBEDIT_PRIORITY) return;
                rule.packetPriority = number<std::uint32_t>(edit);
                writesPriority = true;
            });
        });
    });
    return writesPriority;
}

std::optional<TagPriorityRule> decodeRule(const nlattr& options) {
    TagPriorityRule rule;
    bool tag = false;
    bool priority = false;
    eachAttribute(options, [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == TCA_FLOWER_KEY_VLAN_PRIO) {
            rule.tagPriority = number<std::uint8_t>(attribute);
            tag = true;
        }
        if (mnl_attr_get_type(&attribute) == TCA_FLOWER_ACT) priority = decodeActions(attribute, rule);
    });
    return tag && priority ? std::optional{rule} : std::nullopt;
}

void decodeOptions(const nlattr& attribute, Filter& filter) {
    if (filter.kind == "bpf") {
        if (auto program = decodeProgram(attribute)) filter.options = std::move(*program);
        if (auto program = decodeFrameProgram(attribute)) filter.options = std::move(*program);
    } else if (filter.kind == "flower") {
        if (const auto rule = decodeRule(attribute)) filter.options = *rule;
    }
}

}  // namespace

NetlinkMessage newFilter(const Filter& filter, std::uint16_t flags) {
    NetlinkMessage message = about(RTM_NEWTFILTER, flags, filter);
    std::visit(FilterOptions{message, filter}, filter.options);
    return message;
}

NetlinkMessage deleteFilter(const Filter& filter) {
    NetlinkMessage message = about(RTM_DELTFILTER, requestAck, filter);
    if (filter.kind == "flower")
        message.nest(TCA_OPTIONS, [&](NetlinkMessage& m) { flowerFrame(m, filter.protocol); });
    return message;
}

std::optional<Filter> decodeFilter(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWTFILTER && message.nlmsg_type != RTM_DELTFILTER) return std::nullopt;
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(tcmsg)) return std::nullopt;
    const auto* target = static_cast<const tcmsg*>(mnl_nlmsg_get_payload(&message));
    if (target->tcm_ifindex <= 0 || (target->tcm_handle == 0 && message.nlmsg_type == RTM_NEWTFILTER))
        return std::nullopt;
    Filter filter;
    filter.ifindex = static_cast<unsigned>(target->tcm_ifindex);
    filter.handle = target->tcm_handle;
    filter.parent = target->tcm_parent;
    filter.preference = static_cast<std::uint16_t>(target->tcm_info >> 16);
    filter.protocol = ntohs(static_cast<std::uint16_t>(target->tcm_info & 0xffff));
    const nlattr* options = nullptr;
    eachAttribute(message, sizeof(tcmsg), [&](const nlattr& attribute) {
        if (mnl_attr_get_type(&attribute) == TCA_KIND) filter.kind = text(attribute);
        if (mnl_attr_get_type(&attribute) == TCA_OPTIONS) options = &attribute;
    });
    if (options != nullptr) decodeOptions(*options, filter);
    return filter;
}

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
