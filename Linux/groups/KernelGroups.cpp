#include "Linux/groups/KernelGroups.h"

#include <algorithm>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

/// Notifications of thousands of groups that go at once.
constexpr int queueBytes = 8 << 20;

}  // namespace

KernelGroups::KernelGroups(Runtime::FdLoop& loop, NetlinkChannel& requests, OwnerOf ownerOf, Changed changed,
                           std::function<void()> routersChanged, std::function<void()> lost)
    : loop_{loop},
      requests_{requests},
      ownerOf_{std::move(ownerOf)},
      changed_{std::move(changed)},
      routersChanged_{std::move(routersChanged)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, std::move(lost)} {}

std::string KernelGroups::start() { return notices_.open({RTNLGRP_MDB}, queueBytes); }

void KernelGroups::bridgeIs(unsigned bridge) {
    bridge_ = bridge;
    known_ = false;
    table_.clear();
    routers_.clear();
}

NetlinkAnswer KernelGroups::read() {
    // Old news would undo the new.
    notices_.discard();
    std::vector<GroupEntry> entries;
    std::set<unsigned> routers;
    NetlinkAnswer answer = requests_.dump(
        RTM_GETMDB, groupDumpBody(), [&] { entries.clear(), routers.clear(); },
        [&](const nlmsghdr& message) {
            for (GroupEntry& entry : decodeGroups(message, bridge_)) entries.push_back(std::move(entry));
            for (const unsigned port : decodeRouters(message, bridge_)) routers.insert(port);
        });
    if (!answer) return answer;
    if (routers != routers_) {
        routers_ = std::move(routers);
        routersChanged_();
    }
    leftOut_ = notOffloaded(entries);
    std::vector<GroupMember> there;
    there.reserve(entries.size());
    for (const GroupEntry& entry : entries) there.push_back(entry.member);
    std::ranges::sort(there);
    for (const HeldGroup& held : table_.all()) {
        if (!std::ranges::binary_search(there, held.member)) take(held.member, std::nullopt);
    }
    for (const GroupEntry& entry : entries) take(entry.member, ownerOf_(bridge_, entry));
    known_ = true;
    return answer;
}

void KernelGroups::notice(const nlmsghdr& message) {
    if (bridge_ == 0) return;
    const bool there = message.nlmsg_type == RTM_NEWMDB;
    for (const GroupEntry& entry : decodeGroups(message, bridge_))
        take(entry.member, there ? std::optional{ownerOf_(bridge_, entry)} : std::nullopt);
    for (const unsigned port : decodeRouters(message, bridge_)) {
        if (there ? routers_.insert(port).second : routers_.erase(port) != 0) routersChanged_();
    }
}

void KernelGroups::take(const GroupMember& member, std::optional<GroupOwner> now) {
    const auto before = table_.owner(member);
    if (before == now) return;  // most often our own doing
    if (now) {
        table_.put(member, *now);
    } else {
        table_.erase(member, loop_.now());
    }
    changed_(member, before, now);
}

}  // namespace Linux
