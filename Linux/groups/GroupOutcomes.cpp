#include "Linux/groups/GroupOutcomes.h"

#include "Runtime/Text.h"

namespace Linux {

std::string failureKey(const WantedGroup& wanted) {
    return Runtime::concat(wanted.vlan, '/', wanted.member.group.mac, '/', wanted.intf);
}

GroupOutcome groupOutcome(std::span<const WantedGroup> wanted, const GroupTable& table,
                          const std::map<GroupMember, GroupProblem>& why) {
    GroupOutcome outcome;
    for (const WantedGroup& wish : wanted) {
        ++outcome.wanted;
        if (const auto owner = table.owner(wish.member)) {
            ++outcome.programmed;
            if (*owner == GroupOwner::another) ++outcome.foreign;
        } else if (const auto reason = why.find(wish.member); reason != why.end()) {
            outcome.failed.emplace(failureKey(wish), reason->second.text);
        }
    }
    return outcome;
}

void GroupOutcomes::enter(EthAddr mac, GroupOutcome outcome) {
    const GroupOutcome before = std::move(outcomes_[mac]);
    for (const auto& [entry, why] : before.failed) {
        if (!outcome.failed.contains(entry)) status_->failedDel(entry);
    }
    for (const auto& [entry, why] : outcome.failed) {
        if (status_->failed().contains(entry) || status_->failed().size() < GroupStatus::listed)
            status_->failedIs(entry, why);
        Reason& reason = reasons_[why];
        if (reason.entries++ == 0) reason.example = entry;
    }
    leave(before);
    missing_ += outcome.failed.size();
    total_.wanted += outcome.wanted;
    total_.programmed += outcome.programmed;
    total_.foreign += outcome.foreign;
    if (outcome.failed.empty()) {
        failing_.erase(mac);
    } else {
        failing_.insert(mac);
    }
    if (outcome.wanted == 0) {
        outcomes_.erase(mac);
    } else {
        outcomes_[mac] = std::move(outcome);
    }
}

void GroupOutcomes::leave(const GroupOutcome& outcome) {
    missing_ -= outcome.failed.size();
    total_.wanted -= outcome.wanted;
    total_.programmed -= outcome.programmed;
    total_.foreign -= outcome.foreign;
    for (const auto& [entry, why] : outcome.failed) {
        const auto reason = reasons_.find(why);
        if (reason != reasons_.end() && --reason->second.entries == 0) reasons_.erase(reason);
    }
}

std::string GroupOutcomes::why(EthAddr mac, const std::string& entry) const {
    const auto held = outcomes_.find(mac);
    if (held == outcomes_.end()) return {};
    const auto reason = held->second.failed.find(entry);
    return reason != held->second.failed.end() ? reason->second : std::string{};
}

void GroupOutcomes::publish(std::size_t tableUsed, std::size_t tableSize, std::size_t tableRoom) {
    status_->wantedIs(total_.wanted);
    status_->programmedIs(total_.programmed);
    status_->foreignIs(total_.foreign);
    status_->missingIs(static_cast<std::uint32_t>(missing_));
    status_->tableUsedIs(static_cast<std::uint32_t>(tableUsed));
    status_->tableSizeIs(static_cast<std::uint32_t>(tableSize));
    status_->tableRoomIs(static_cast<std::uint32_t>(tableRoom));
}

std::vector<std::string> GroupOutcomes::news() {
    std::vector<std::string> lines;
    for (auto& [why, reason] : reasons_) {
        if (std::exchange(reason.told, true)) continue;
        std::string line = Runtime::concat("group ", reason.example, " is not forwarded: ", why);
        if (reason.entries > 1) line += Runtime::concat(" (and ", reason.entries - 1, " others)");
        lines.push_back(std::move(line));
    }
    return lines;
}

}  // namespace Linux
