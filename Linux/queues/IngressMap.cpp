#include "Linux/queues/IngressMap.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <linux/if_ether.h>

namespace Linux {

namespace {

/// That of priority 0; high enough that nobody else has chosen it.
constexpr std::uint32_t firstHandle = 0x6D737200;
constexpr std::uint8_t priorities = 8;

std::uint32_t priorityOf(const Filter& filter) { return filter.handle - firstHandle; }

bool ours(const Filter& filter) {
    const auto* rule = std::get_if<TagPriorityRule>(&filter.options);
    return filter.parent == ingressFilters && filter.kind == "flower" && rule != nullptr && rule->marked &&
           priorityOf(filter) < priorities;
}

}  // namespace

std::vector<QueueStep> planIngressMap(unsigned ifindex, ClassPriorities mapped, const PortQueues& have) {
    std::vector<Filter> wanted;
    const unsigned all = mapped.a | mapped.b;
    for (std::uint8_t priority = 0; priority < priorities; ++priority) {
        if ((all >> priority & 1) == 0) continue;
        wanted.push_back({ifindex, firstHandle + priority, ingressFilters, ingressPreference, ETH_P_8021Q,
                          "flower", TagPriorityRule{priority, priority, true}});
    }

    std::vector<QueueStep> steps;
    for (const Filter& held : have.filters) {
        if (ours(held) && std::ranges::find(wanted, held) == wanted.end())
            steps.push_back({"a priority of incoming frames is still mapped", deleteFilter(held)});
    }
    if (!wanted.empty() && !have.ingress) {
        steps.push_back({"there is no place for filters of incoming frames",
                         newQdisc({ifindex, TC_H_MAJ(TC_H_CLSACT), TC_H_CLSACT, "clsact", {}}, requestAdd)});
    }
    for (const Filter& filter : wanted) {
        if (std::ranges::find(have.filters, filter) != have.filters.end()) continue;
        steps.push_back(
            {Runtime::concat("priority ", priorityOf(filter), " of incoming frames is not mapped"),
             newFilter(filter, requestAdd)});
    }
    return steps;
}

bool mapsIngress(const PortQueues& have) { return std::ranges::any_of(have.filters, ours); }

std::vector<QueueStep> planIngressRemoval(const PortQueues& have) {
    if (!have.ingress) return {};
    return {{"there is a place for filters that are gone", deleteQdisc(*have.ingress)}};
}

}  // namespace Linux
