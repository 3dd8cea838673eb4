#include "Linux/groups/GroupRefusals.h"

#include <algorithm>

namespace Linux {

using Switch::GroupId;

namespace {

/// After the first retry twice as long each time.
Runtime::Duration pause(unsigned attempts) {
    Runtime::Duration span = GroupRefusals::firstRetry;
    for (; attempts > 1 && span < GroupRefusals::lastRetry; --attempts) span *= 2;
    return std::min<Runtime::Duration>(span, GroupRefusals::lastRetry);
}

}  // namespace

void GroupRefusals::refuse(const GroupId& id, const std::string& why, bool retried, Runtime::Time now) {
    Entry& entry = entries_[id.addr][id.vlan];
    if (!entry.refused) {
        entry.refused = true;
        entry.order = next_++;
        entry.attempts = now - entry.lastAttempt > 2 * lastRetry ? 0 : entry.attempts;
    } else if (entry.why == why && (!retried || now < entry.until)) {
        return;
    }
    entry.why = why;
    toLift_.erase(entry.order);
    toRefuse_.push_back(id);
    if (retried) entry.lastAttempt = now;
    wait(id, entry, retried ? now + pause(++entry.attempts) : Runtime::Time{});
}

void GroupRefusals::fulfilled(const GroupId& id, Runtime::Time now) {
    const auto address = entries_.find(id.addr);
    if (address == entries_.end()) return;
    const auto held = address->second.find(id.vlan);
    if (held == address->second.end() || !held->second.refused) return;
    held->second.refused = false;
    toLift_.emplace(held->second.order, id);
    wait(id, held->second, now + reserve);
}

void GroupRefusals::drop(const GroupId& id) {
    const auto address = entries_.find(id.addr);
    if (address == entries_.end()) return;
    const auto held = address->second.find(id.vlan);
    if (held == address->second.end()) return;
    times_.erase({held->second.until, id});
    // Also where it was to be lifted already: now there is nobody to wait for.
    toLift_.insert_or_assign(held->second.order, id);
    address->second.erase(held);
    if (address->second.empty()) entries_.erase(address);
}

void GroupRefusals::retryAll() {
    for (auto& [mac, vlans] : entries_) {
        for (auto& [vlan, entry] : vlans) {
            if (!entry.refused) continue;
            entry.attempts = 0;
            wait({vlan, mac}, entry, {});
        }
    }
}

std::vector<VlanId> GroupRefusals::of(EthAddr mac) const {
    std::vector<VlanId> vlans;
    if (const auto address = entries_.find(mac); address != entries_.end()) {
        for (const auto& [vlan, entry] : address->second) vlans.push_back(vlan);
    }
    return vlans;
}

bool GroupRefusals::expected(const GroupId& id, Runtime::Time now) const {
    const auto address = entries_.find(id.addr);
    if (address == entries_.end()) return false;
    const auto held = address->second.find(id.vlan);
    return held != address->second.end() && (held->second.refused || now < held->second.until);
}

const std::string* GroupRefusals::heldBack(const GroupId& id, Runtime::Time now) const {
    const auto address = entries_.find(id.addr);
    if (address == entries_.end()) return nullptr;
    const auto held = address->second.find(id.vlan);
    const bool held_back = held != address->second.end() && held->second.refused && now < held->second.until;
    return held_back ? &held->second.why : nullptr;
}

std::vector<EthAddr> GroupRefusals::due(Runtime::Time now) {
    std::vector<EthAddr> addresses;
    while (!times_.empty() && times_.begin()->first <= now) {
        addresses.push_back(times_.begin()->second.addr);
        times_.erase(times_.begin());
    }
    return addresses;
}

std::optional<Runtime::Time> GroupRefusals::nextDue() const {
    return times_.empty() ? std::nullopt : std::optional{times_.begin()->first};
}

bool GroupRefusals::publish(std::size_t atMost) {
    for (; atMost > 0 && !(toLift_.empty() && toRefuse_.empty()); --atMost) {
        // What can be granted comes before what cannot.
        const bool lift = !toLift_.empty();
        const GroupId id = lift ? toLift_.begin()->second : toRefuse_.front();
        if (lift) {
            toLift_.erase(toLift_.begin());
        } else {
            toRefuse_.pop_front();
        }
        const auto address = entries_.find(id.addr);
        const auto vlans = address != entries_.end() ? &address->second : nullptr;
        const bool held = vlans != nullptr && vlans->contains(id.vlan);
        if (held && vlans->at(id.vlan).refused) {
            // Whoever follows the record acts at once; what it is about must not be touched meanwhile.
            const std::string why = vlans->at(id.vlan).why;
            record_->groupIs(id, why);
        } else {
            record_->groupDel(id);
        }
    }
    return toLift_.empty() && toRefuse_.empty();
}

void GroupRefusals::wait(const GroupId& id, Entry& entry, Runtime::Time until) {
    times_.erase({entry.until, id});
    entry.until = until;
    if (until != Runtime::Time{}) times_.emplace(until, id);
}

}  // namespace Linux
