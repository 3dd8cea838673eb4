#include "Show/Neighbourhood.h"

#include <map>

namespace Show {

std::vector<std::vector<std::size_t>> neighboursOf(const std::vector<HeardPort>& ports) {
    std::multimap<EthAddr, std::size_t> byAddress;
    for (std::size_t p = 0; p < ports.size(); ++p) byAddress.emplace(ports[p].own, p);
    std::vector<std::vector<std::size_t>> all(ports.size());
    for (std::size_t p = 0; p < ports.size(); ++p) {
        if (ports[p].heard == EthAddr{}) continue;
        const auto [from, to] = byAddress.equal_range(ports[p].heard);
        for (auto at = from; at != to; ++at) {
            const HeardPort& other = ports[at->second];
            if (other.bridge != ports[p].bridge && other.heard == ports[p].own) all[p].push_back(at->second);
        }
    }
    return all;
}

}  // namespace Show
