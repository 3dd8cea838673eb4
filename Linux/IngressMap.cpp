#include "Linux/IngressMap.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <linux/if_ether.h>

namespace Linux {

namespace {

/// Marks our filters.
constexpr std::uint16_t preference = 33;

bool ours(const Filter& filter) {
    return filter.parent == ingressFilters && filter.preference == preference &&
           filter.protocol == ETH_P_8021Q;
}

}  // namespace

std::vector<QueueStep> planIngressMap(unsigned ifindex, ClassPriorities mapped, const PortQueues& have) {
    std::vector<Filter> wanted;
    const unsigned all = mapped.a | mapped.b;
    for (std::uint8_t priority = 0; priority < 8; ++priority) {
        if ((all >> priority & 1) == 0) continue;
        // A handle of 0 would be the kernel's choice.
        wanted.push_back({ifindex, priority + 1U, ingressFilters, preference, ETH_P_8021Q, "flower",
                          TagPriorityRule{priority, priority}});
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
        steps.push_back({Runtime::concat("priority ", filter.handle - 1, " of incoming frames is not mapped"),
                         newFilter(filter, requestAdd)});
    }
    return steps;
}

std::vector<QueueStep> planIngressRemoval(const PortQueues& have) {
    const bool inUse = std::ranges::any_of(
        have.filters, [](const Filter& held) { return TC_H_MAJ(held.parent) == TC_H_MAJ(TC_H_CLSACT); });
    if (!have.ingress || inUse) return {};
    return {{"there is a place for filters that are gone", deleteQdisc(*have.ingress)}};
}

}  // namespace Linux
