#include "Linux/groups/GroupRemoval.h"

#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

/// Has the bridge snoop for its life, if it does not.
class Snooping {
public:
    Snooping(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings)
        : kernel_{kernel}, bridge_{bridge}, wasOff_{!settings.multicastSnooping} {
        if (wasOff_) (void)kernel_.carryOut(multicastSnooping(bridge_, true));
    }
    Snooping(const Snooping&) = delete;
    Snooping& operator=(const Snooping&) = delete;
    ~Snooping() {
        if (wasOff_) (void)kernel_.carryOut(multicastSnooping(bridge_, false));
    }

private:
    NetlinkChannel& kernel_;
    unsigned bridge_;
    bool wasOff_;
};

}  // namespace

NetlinkAnswer readAllGroups(NetlinkChannel& kernel, GroupsByBridge& groups) {
    return kernel.dump(
        RTM_GETMDB, groupDumpBody(), [&] { groups.clear(); },
        [&](const nlmsghdr& message) {
            const unsigned bridge = groupBridge(message);
            for (GroupEntry& entry : decodeGroups(message, bridge))
                groups[bridge].push_back(std::move(entry));
        });
}

bool isStuck(const GroupMember& member, const BridgeSettings& settings) {
    return settings.vlanFiltering && member.group.vid == 0;
}

std::string removeGroups(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings,
                         std::span<const GroupMember> members, std::vector<bool>& deleted) {
    deleted.assign(members.size(), false);
    std::vector<NetlinkMessage> requests;
    std::vector<std::size_t> places;
    std::string problem;
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (isStuck(members[i], settings)) {
            problem = "entries from before the bridge filtered VLANs stay until it does not";
            continue;
        }
        requests.push_back(groupDelete(bridge, members[i]));
        places.push_back(i);
    }
    if (requests.empty()) return problem;
    const Snooping snooping{kernel, bridge, settings};
    const auto answers = kernel.carryOut(requests);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        const GroupReaction reaction = reactionToDelete(answers[i]);
        deleted[places[i]] = reaction == GroupReaction::done || reaction == GroupReaction::reread;
        if (!deleted[places[i]]) problem = answers[i].problem();
    }
    return problem;
}

NetlinkAnswer flushGroups(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings,
                          std::uint8_t protocol) {
    const Snooping snooping{kernel, bridge, settings};
    return kernel.carryOut(groupFlush(bridge, protocol));
}

}  // namespace Linux
