#include "Linux/groups/GroupWriter.h"

#include "Linux/groups/GroupRemoval.h"

#include <algorithm>
#include <cerrno>

namespace Linux {

std::vector<GroupMember> GroupWriter::ours() const {
    std::vector<GroupMember> members;
    for (const HeldGroup& held : groups_.table().all()) {
        if (held.owner == GroupOwner::us) members.push_back(held.member);
    }
    return members;
}

std::vector<GroupWriter::Result> GroupWriter::carryOut(std::span<const GroupMember> adds,
                                                       std::span<const GroupMember> deletes) {
    std::vector<NetlinkMessage> messages;
    for (const GroupMember& member : adds) {
        ownership_.adding(member);
        messages.push_back(groupAdd(bridge_, member, ownership_.mark()));
    }
    for (const GroupMember& member : deletes) messages.push_back(groupDelete(bridge_, member));
    ownership_.flush();
    std::vector<Result> results;
    if (messages.empty()) return results;
    for (const NetlinkAnswer& answer : kernel_.carryOut(messages)) {
        const bool isAdd = results.size() < adds.size();
        const GroupMember& member = isAdd ? adds[results.size()] : deletes[results.size() - adds.size()];
        const GroupReaction reaction = isAdd ? reactionToAdd(answer) : reactionToDelete(answer);
        const bool done = reaction == GroupReaction::done;
        if (isAdd && done) {
            groups_.table().put(member, GroupOwner::us);
        } else if (isAdd) {
            ownership_.gone(member);
        } else if (done) {
            forget(member);
        }
        if (reaction == GroupReaction::unmarked) ownership_.cannotMark();
        results.push_back({reaction, answer.problem()});
    }
    return results;
}

std::string GroupWriter::remove(const std::vector<GroupMember>& members) {
    const BridgeSettings* bridge = settings();
    if (members.empty() || bridge == nullptr) return {};
    std::vector<bool> done;
    std::string problem = removeGroups(kernel_, bridge_, *bridge, members, done);
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (done[i]) forget(members[i]);
    }
    return problem;
}

std::string GroupWriter::removeAll() {
    const BridgeSettings* bridge = settings();
    if (bridge == nullptr) return {};
    const std::vector<GroupMember> all = ours();
    const auto stuck = [&](const GroupMember& member) { return isStuck(member, *bridge); };
    if (std::ranges::any_of(all, stuck) && flush()) {
        for (const GroupMember& member : all) forget(member);
    }
    std::string problem = remove(ours());
    if (problem.empty() && groups_.known()) ownership_.bridgeDel(bridge_);
    return problem;
}

bool GroupWriter::flush() {
    const BridgeSettings* bridge = settings();
    if (!flushes_ || ownership_.mark() == 0 || bridge == nullptr) return false;
    for (const std::uint8_t mark : ownership_.marksOn(bridge_)) {
        const NetlinkAnswer answer = flushGroups(kernel_, bridge_, *bridge, mark);
        // Kernels that do not know such a request say so, or find what it names incomplete.
        if (answer.error == EOPNOTSUPP || answer.error == EINVAL) flushes_ = false;
        if (!answer) return false;
    }
    return true;
}

bool GroupWriter::flushStuck() {
    if (!flush()) return false;
    std::vector<GroupMember> again;
    for (const GroupMember& member : ours()) {
        if (member.group.vid == 0) {
            forget(member);
        } else {
            again.push_back(member);
        }
    }
    // The table still has them, so that what is to be is asked for without a decision in between.
    std::vector<NetlinkMessage> messages;
    messages.reserve(again.size());
    for (const GroupMember& member : again) messages.push_back(groupAdd(bridge_, member, ownership_.mark()));
    const auto answers = kernel_.carryOut(messages);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (!answers[i]) forget(again[i]);
    }
    return true;
}

NetlinkAnswer GroupWriter::snoop() {
    NetlinkAnswer answer = kernel_.carryOut(multicastSnooping(bridge_, true));
    devices_.readBridge(bridge_);
    return answer;
}

NetlinkAnswer GroupWriter::tableSizeIs(std::uint32_t groups) {
    return kernel_.carryOut(multicastTableSize(bridge_, groups));
}

const BridgeSettings* GroupWriter::settings() const {
    const Device* bridge = devices_.find(bridge_);
    return bridge != nullptr && bridge->bridgeSettings ? &*bridge->bridgeSettings : nullptr;
}

void GroupWriter::forget(const GroupMember& member) {
    groups_.table().erase(member, loop_.now());
    ownership_.gone(member);
}

}  // namespace Linux
