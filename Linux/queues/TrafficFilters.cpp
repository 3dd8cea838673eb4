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

}  // namespace Linux
