#include "Plan/Network.h"

#include <algorithm>

namespace Plan {

std::string Place::text() const { return line == 0 ? file : file + ':' + std::to_string(line); }

std::vector<std::size_t> Network::linksOf(std::size_t device) const {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < links.size(); ++i) {
        if (links[i].ends[0].device == device || links[i].ends[1].device == device) found.push_back(i);
    }
    return found;
}

std::size_t Network::device(std::string_view name) const {
    return static_cast<std::size_t>(std::ranges::find(devices, name, &Device::name) - devices.begin());
}

std::size_t Network::stream(std::string_view name) const {
    return static_cast<std::size_t>(std::ranges::find(streams, name, &Stream::name) - streams.begin());
}

}  // namespace Plan
