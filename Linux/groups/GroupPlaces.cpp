#include "Linux/groups/GroupPlaces.h"

namespace Linux {

void GroupPlaces::claim(const Group& group, const Claim& claim, bool held) {
    const auto [at, fresh] = entries_.try_emplace(group);
    Entry& entry = at->second;
    const bool placed = held || claim.free || (!fresh && entry.placed && !entry.claim.free);
    if (!fresh && entry.claim == claim && entry.placed == placed) return;
    const bool sameQueue = !fresh && entry.claim.listened == claim.listened &&
                           entry.claim.talker == claim.talker && entry.placed == placed;
    if (!fresh) leave(group, entry);
    entry = {claim, sameQueue ? entry.order : next_++, placed};
    enter(group, entry);
}

void GroupPlaces::release(const Group& group) {
    const auto at = entries_.find(group);
    if (at == entries_.end()) return;
    leave(group, at->second);
    entries_.erase(at);
}

void GroupPlaces::putBack(const Group& group) {
    if (has(group)) move(group, false);
}

void GroupPlaces::clear() {
    entries_.clear();
    tiers_ = {};
}

bool GroupPlaces::has(const Group& group) const {
    const auto at = entries_.find(group);
    return at != entries_.end() && at->second.placed;
}

std::vector<Group> GroupPlaces::of(EthAddr mac) const {
    std::vector<Group> found;
    for (auto at = entries_.lower_bound(Group{mac, 0, {}}); at != entries_.end() && at->first.mac == mac;
         ++at)
        found.push_back(at->first);
    return found;
}

std::vector<Group> GroupPlaces::settle(std::size_t capacity, std::size_t atMost) {
    std::vector<Group> changed;
    const auto give = [&](const Port& port) {
        changed.push_back(port.waiting.begin()->second);
        move(changed.back(), true);
    };
    const auto take = [&](const Port& port) {
        changed.push_back(port.placed.rbegin()->second);
        move(changed.back(), false);
    };
    while (changed.size() < atMost) {
        const std::size_t placed = tiers_[wanted].placed + tiers_[unwanted].placed;
        const Port* needs = neediest(wanted);
        const bool spare = placed < capacity;
        // What nobody listens to goes where there are too many, and where a place is needed.
        if (tiers_[unwanted].placed != 0 && (placed > capacity || (needs != nullptr && !spare))) {
            take(*richest(unwanted));
        } else if (needs != nullptr && spare) {
            give(*needs);
        } else if (const Port* idle = neediest(unwanted); needs == nullptr && idle != nullptr && spare) {
            give(*idle);
        } else {
            // No room: only shares are evened out.
            bool moved = false;
            for (const Tier tier : {wanted, unwanted}) {
                const Port* poor = neediest(tier);
                const Port* rich = richest(tier);
                if (poor == nullptr || rich == nullptr || rich->placed.size() < poor->placed.size() + 2)
                    continue;
                take(*rich);
                give(*poor);
                moved = true;
                break;
            }
            if (!moved) break;
        }
    }
    return changed;
}

void GroupPlaces::enter(const Group& group, const Entry& entry) {
    if (entry.claim.free) return;
    TierPorts& tier = tiers_[tierOf(entry)];
    Port& port = tier.ports[entry.claim.talker];
    (entry.placed ? port.placed : port.waiting).emplace(entry.order, group);
    if (entry.placed) ++tier.placed;
}

void GroupPlaces::leave(const Group&, const Entry& entry) {
    if (entry.claim.free) return;
    TierPorts& tier = tiers_[tierOf(entry)];
    const auto port = tier.ports.find(entry.claim.talker);
    (entry.placed ? port->second.placed : port->second.waiting).erase(entry.order);
    if (entry.placed) --tier.placed;
    if (port->second.placed.empty() && port->second.waiting.empty()) tier.ports.erase(port);
}

void GroupPlaces::move(const Group& group, bool placed) {
    Entry& entry = entries_.at(group);
    // Not forgotten between leaving one queue and entering the other.
    leave(group, entry);
    entry.placed = placed;
    entry.order = next_++;
    enter(group, entry);
}

const GroupPlaces::Port* GroupPlaces::neediest(Tier tier) const {
    const Port* found = nullptr;
    for (const auto& [talker, port] : tiers_[tier].ports) {
        if (port.waiting.empty()) continue;
        const bool better = found == nullptr || port.placed.size() < found->placed.size() ||
                            (port.placed.size() == found->placed.size() &&
                             port.waiting.begin()->first < found->waiting.begin()->first);
        if (better) found = &port;
    }
    return found;
}

const GroupPlaces::Port* GroupPlaces::richest(Tier tier) const {
    const Port* found = nullptr;
    for (const auto& [talker, port] : tiers_[tier].ports) {
        if (port.placed.size() > (found != nullptr ? found->placed.size() : 0)) found = &port;
    }
    return found;
}

}  // namespace Linux
