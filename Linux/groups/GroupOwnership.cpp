#include "Linux/groups/GroupOwnership.h"

#include <utility>

namespace Linux {

GroupOwnership::GroupOwnership(const DeviceTable& devices, std::uint8_t protocol, const std::string& files,
                               Complaint complaint)
    : devices_{devices},
      protocol_{protocol},
      complaint_{std::move(complaint)},
      entries_{files + ".groups"},
      memory_{files + ".bridge"} {}

void GroupOwnership::read(Ability marks) {
    std::set<std::string> problems{memory_.read()};
    if (marks != Ability::present) problems.insert(entries_.read());
    tell(std::move(problems));
}

GroupOwner GroupOwnership::ownerOf(unsigned bridge, const GroupEntry& entry) const {
    if (!entry.member.group.ip.empty() || !entry.permanent) return GroupOwner::another;
    const bool isOurs = entry.protocol == protocol_ || memory_.marked(bridge, entry.protocol) ||
                        entries_.lists(entry.member, portName(entry.member.port));
    return isOurs ? GroupOwner::us : GroupOwner::another;
}

std::set<std::uint8_t> GroupOwnership::marksOn(unsigned bridge) const {
    std::set<std::uint8_t> marks{protocol_};
    for (const auto& [index, protocol] : memory_.marks()) {
        if (index == bridge) marks.insert(protocol);
    }
    return marks;
}

void GroupOwnership::cannotMark() {
    if (std::exchange(marksEntries_, false))
        complaint_("this kernel does not mark entries; a file remembers which are ours");
}

void GroupOwnership::adding(const GroupMember& member) {
    if (!marksEntries_) entries_.add(member, portName(member.port));
}

void GroupOwnership::keepOnly(const std::set<GroupMember>& there) { tell({entries_.keepOnly(there)}); }

void GroupOwnership::flush() { tell({entries_.flush(), memory_.flush()}); }

void GroupOwnership::tell(std::set<std::string> problems) {
    problems.erase("");
    for (const std::string& problem : problems) {
        if (!told_.contains(problem)) complaint_(problem);
    }
    if (!problems.empty()) told_ = std::move(problems);
}

std::string GroupOwnership::portName(unsigned port) const {
    const Device* device = devices_.find(port);
    return device != nullptr ? device->name : std::to_string(port);
}

}  // namespace Linux
