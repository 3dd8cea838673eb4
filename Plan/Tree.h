/// Rapid spanning trees as they come to rest (IEEE 802.1Q 13): which ends of which links do not forward.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Plan {

struct TreeBridge {
    std::uint64_t id = 0;  ///< priority and address (13.26)
};
struct TreeLink {
    std::size_t bridges[2] = {};
    std::uint16_t ports[2] = {};  ///< numbers of the ports at both ends, which decide between equals
    std::uint64_t cost = 0;
    bool up = true;
};

/// For both ends of each link whether they forward; ends of a link that is down do not.
std::vector<std::array<bool, 2>> forwardingEnds(const std::vector<TreeBridge>& bridges,
                                                const std::vector<TreeLink>& links);

/// The path cost recommended for a link speed (Table 13-4), for at least 1 Mbit/s.
std::uint64_t pathCost(std::uint32_t megabitsPerSecond);

}  // namespace Plan
