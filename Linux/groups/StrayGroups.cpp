#include "Linux/groups/StrayGroups.h"

#include "Linux/groups/GroupRemoval.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Linux {

namespace {

constexpr std::size_t atOnce = 512;

}  // namespace

void StrayGroups::put(unsigned bridge, std::vector<GroupMember> members) {
    bridges_[bridge].due = std::move(members);
}

bool StrayGroups::isDue(const std::pair<const unsigned, Bridge>& entry) {
    return !entry.second.due.empty() || entry.second.failed.empty();
}

bool StrayGroups::due() const { return std::ranges::any_of(bridges_, isDue); }

void StrayGroups::retry() {
    for (auto& [index, bridge] : bridges_) {
        bridge.due.insert(bridge.due.end(), bridge.failed.begin(), bridge.failed.end());
        bridge.failed.clear();
        bridge.flushed = false;
    }
}

void StrayGroups::addTo(std::set<GroupMember>& members) const {
    for (const auto& [index, bridge] : bridges_) {
        members.insert(bridge.due.begin(), bridge.due.end());
        members.insert(bridge.failed.begin(), bridge.failed.end());
    }
}

void StrayGroups::removeSome() {
    const auto next = std::ranges::find_if(bridges_, isDue);
    if (next == bridges_.end()) return;
    auto& [index, bridge] = *next;
    const Device* device = devices_.find(index);
    // Gone with all its entries, or another daemon's by now, which takes over what is there.
    if (device == nullptr || !device->bridgeSettings || (served_ && served_(device->name)))
        return forget(index);
    if (!bridge.due.empty()) removeSome(*device, bridge);
    if (bridge.due.empty() && bridge.failed.empty()) forget(index);
}

void StrayGroups::removeSome(const Device& device, Bridge& bridge) {
    const BridgeSettings& settings = *device.bridgeSettings;
    const auto stuck = [&](const GroupMember& member) { return isStuck(member, settings); };
    if (!bridge.flushed && std::ranges::any_of(bridge.due, stuck)) {
        bridge.flushed = true;
        bool all = true;
        for (const std::uint8_t mark : ownership_.marksOn(device.ifindex))
            all = flushGroups(kernel_, device.ifindex, settings, mark) && all;
        // The others are asked for by their names all the same, and found to be gone.
        if (all) std::erase_if(bridge.due, stuck);
    }
    const std::size_t count = std::min(bridge.due.size(), atOnce);
    const std::vector<GroupMember> piece{bridge.due.end() - static_cast<std::ptrdiff_t>(count),
                                         bridge.due.end()};
    bridge.due.resize(bridge.due.size() - count);
    std::vector<bool> deleted;
    const std::string problem = removeGroups(kernel_, device.ifindex, settings, piece, deleted);
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (deleted[i]) {
            ownership_.gone(piece[i]);
        } else {
            bridge.failed.push_back(piece[i]);
        }
    }
    if (!problem.empty() && !std::exchange(bridge.told, true))
        complaint_(Runtime::concat("cannot remove our groups from bridge ", device.name, " yet: ", problem));
}

void StrayGroups::forget(unsigned index) {
    bridges_.erase(index);
    ownership_.bridgeDel(index);
}

}  // namespace Linux
