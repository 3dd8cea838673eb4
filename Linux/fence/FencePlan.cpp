#include "Linux/fence/FencePlan.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bit>
#include <cerrno>
#include <linux/if_ether.h>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

constexpr std::uint32_t fenceHandle = 0x6D737266;

std::optional<FenceRules> ourRules(const Filter& filter) {
    const auto* program = std::get_if<FrameProgram>(&filter.options);
    return program != nullptr && filter.handle == fenceHandle ? FenceRules::parse(program->name)
                                                              : std::nullopt;
}

bool atFence(const Filter& filter) {
    return filter.parent == ingressFilters && filter.preference == fencePreference &&
           filter.protocol == ETH_P_ALL;
}

tcmsg fenceTarget(unsigned ifindex, std::uint32_t parent, std::uint32_t place = 0) {
    tcmsg target{};
    target.tcm_ifindex = static_cast<int>(ifindex);
    target.tcm_parent = parent;
    target.tcm_info = place;
    return target;
}

}  // namespace

void FencePlace::take(const nlmsghdr& message) {
    if (const auto qdisc = decodeQdisc(message); qdisc && qdisc->parent == TC_H_CLSACT) {
        const bool deleted = message.nlmsg_type == RTM_DELQDISC;
        ingress = deleted ? std::nullopt : std::optional{*qdisc};
        if (deleted) filters.clear();
    }
    const auto filter = decodeFilter(message);
    if (!filter || !atFence(*filter)) return;
    const bool deleted = message.nlmsg_type == RTM_DELTFILTER;
    std::erase_if(filters, [&](const Filter& held) {
        return (deleted && filter->handle == 0) || held.handle == filter->handle;
    });
    if (!deleted) filters.push_back(*filter);
}

NetlinkAnswer readFence(NetlinkChannel& kernel, unsigned ifindex, FencePlace& place) {
    FencePlace read;
    const auto take = [&](const nlmsghdr& message) {
        if (queueDevice(message) == ifindex) read.take(message);
    };
    NetlinkMessage request{RTM_GETQDISC, requestAck | NLM_F_ECHO};
    request.part(fenceTarget(ifindex, TC_H_CLSACT));
    NetlinkAnswer answer = kernel.ask(std::move(request), take);
    if (answer.error == ENOENT) answer = {};  // nothing is there
    if (answer && read.ingress) {
        const tcmsg where = fenceTarget(
            ifindex, ingressFilters, std::uint32_t{fencePreference} << 16 | htons(std::uint16_t{ETH_P_ALL}));
        answer = kernel.dump(
            RTM_GETTFILTER, std::as_bytes(std::span{&where, 1}), [&] { read.filters.clear(); }, take);
    }
    if (answer) place = std::move(read);
    return answer;
}

std::optional<FenceRules> fenceOf(const FencePlace& have) {
    for (const Filter& filter : have.filters) {
        if (const auto rules = ourRules(filter)) return rules;
    }
    return std::nullopt;
}

Filter fenceFilter(unsigned ifindex, FrameProgram program) {
    return {ifindex, fenceHandle, ingressFilters, fencePreference, ETH_P_ALL, "bpf", std::move(program)};
}

std::vector<QueueStep> planFence(unsigned ifindex, const std::optional<Filter>& wanted,
                                 const FencePlace& have) {
    std::vector<QueueStep> steps;
    const auto held =
        std::ranges::find_if(have.filters, [](const Filter& f) { return ourRules(f).has_value(); });
    const bool there = held != have.filters.end();
    if (!wanted) {
        if (there) steps.push_back({"incoming frames still lose their priority", deleteFilter(*held)});
        return steps;
    }
    if (there && *held == *wanted) return steps;
    if (!have.ingress) {
        steps.push_back({"there is no place for filters of incoming frames",
                         newQdisc({ifindex, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}}, requestAdd)});
    }
    steps.push_back({there ? "incoming frames lose other priorities than they should"
                           : "incoming frames from outside the classes' domain keep their priority",
                     newFilter(*wanted, there ? requestReplace : requestAdd)});
    return steps;
}

}  // namespace Linux
