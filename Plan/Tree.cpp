#include "Plan/Tree.h"

#include <algorithm>
#include <queue>
#include <tuple>

namespace Plan {

namespace {

/// What a bridge knows of the way to the root, the better the smaller: root, cost, the bridge that told and
/// its port, and our own port.
struct Way {
    std::uint64_t root;
    std::uint64_t cost;
    std::uint64_t from;
    std::uint16_t fromPort;
    std::uint16_t port;
    std::size_t link;
    [[nodiscard]] auto rank() const { return std::tuple{root, cost, from, fromPort, port}; }
};

}  // namespace

std::uint64_t pathCost(std::uint32_t megabitsPerSecond) {
    constexpr std::uint64_t oneMegabit = 20'000'000;
    return std::max<std::uint64_t>(1, oneMegabit / std::max(1U, megabitsPerSecond));
}

std::vector<std::array<bool, 2>> forwardingEnds(const std::vector<TreeBridge>& bridges,
                                                const std::vector<TreeLink>& links) {
    constexpr std::size_t none = SIZE_MAX;
    std::vector<std::vector<std::size_t>> at(bridges.size());
    for (std::size_t i = 0; i < links.size(); ++i) {
        if (!links[i].up) continue;
        for (const std::size_t bridge : links[i].bridges) at[bridge].push_back(i);
    }
    std::vector<Way> best;
    best.reserve(bridges.size());
    for (const TreeBridge& bridge : bridges) best.push_back({bridge.id, 0, bridge.id, 0, 0, none});
    // The root of each part of the network is its bridge of the smallest id; from there on as Dijkstra does.
    std::vector<std::size_t> order(bridges.size());
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::ranges::sort(order, {}, [&](std::size_t i) { return bridges[i].id; });
    std::vector<bool> done(bridges.size(), false);
    for (const std::size_t root : order) {
        if (done[root]) continue;
        using Entry = std::pair<std::tuple<std::uint64_t, std::uint64_t>, std::size_t>;
        std::priority_queue<Entry, std::vector<Entry>, std::greater<>> open;
        open.push({{0, bridges[root].id}, root});
        while (!open.empty()) {
            const std::size_t i = open.top().second;
            open.pop();
            if (done[i]) continue;
            done[i] = true;
            for (const std::size_t l : at[i]) {
                const TreeLink& link = links[l];
                const int mine = link.bridges[0] == i ? 0 : 1;
                const std::size_t far = link.bridges[1 - mine];
                if (done[far]) continue;
                const Way way{best[i].root,     best[i].cost + link.cost, bridges[i].id,
                              link.ports[mine], link.ports[1 - mine],     l};
                if (way.rank() < best[far].rank()) {
                    best[far] = way;
                    open.push({{way.cost, bridges[far].id}, far});
                }
            }
        }
    }
    std::vector<std::array<bool, 2>> ends(links.size(), {false, false});
    for (std::size_t l = 0; l < links.size(); ++l) {
        if (!links[l].up) continue;
        const auto& [a, b] = links[l].bridges;
        const auto offer = [&](std::size_t bridge, int end) {
            return std::tuple{best[bridge].cost, bridges[bridge].id, links[l].ports[end]};
        };
        // The better end is the link's designated one; the other forwards only as its bridge's way to the
        // root.
        const int designated = offer(a, 0) < offer(b, 1) ? 0 : 1;
        ends[l][static_cast<std::size_t>(designated)] = true;
        ends[l][static_cast<std::size_t>(1 - designated)] = best[links[l].bridges[1 - designated]].link == l;
    }
    return ends;
}

}  // namespace Plan
