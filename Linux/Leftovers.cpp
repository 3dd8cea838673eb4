#include "Linux/Leftovers.h"

#include "Linux/GroupRemoval.h"
#include "Linux/IngressMap.h"
#include "Linux/PortQueues.h"
#include "Linux/QueuePlan.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Linux {

using Runtime::concat;

namespace {

std::string removeMarked(NetlinkChannel& kernel, unsigned bridge, const BridgeSettings& settings,
                         std::uint8_t protocol, const std::vector<GroupMember>& members) {
    const bool stuck = std::ranges::any_of(members, [&](const auto& m) { return isStuck(m, settings); });
    if (stuck && flushGroups(kernel, bridge, settings, protocol)) return {};
    std::vector<bool> deleted;
    return removeGroups(kernel, bridge, settings, members, deleted);
}

std::string findGroups(NetlinkChannel& kernel, const DeviceTable& devices,
                       const std::set<std::uint8_t>& protocols, std::vector<Leftover>& found) {
    GroupsByBridge tables;
    if (const NetlinkAnswer answer = readAllGroups(kernel, tables); !answer)
        return concat("cannot read the groups of bridges: ", answer.problem());
    for (const auto& [index, entries] : tables) {
        const Device* bridge = devices.find(index);
        if (bridge == nullptr || !bridge->bridgeSettings) continue;
        for (const std::uint8_t protocol : protocols) {
            std::vector<GroupMember> members;
            for (const GroupEntry& entry : entries) {
                if (entry.permanent && entry.protocol == protocol && entry.member.group.ip.empty())
                    members.push_back(entry.member);
            }
            if (members.empty()) continue;
            std::string what =
                concat(members.size(), " entries of its multicast table with protocol ", unsigned{protocol});
            found.push_back({bridge->name, std::move(what),
                             [bridge = *bridge, protocol, members](NetlinkChannel& channel) {
                                 return removeMarked(channel, bridge.ifindex, *bridge.bridgeSettings,
                                                     protocol, members);
                             }});
        }
    }
    return {};
}

std::string findQueues(NetlinkChannel& kernel, const DeviceTable& devices,
                       const std::set<std::uint16_t>& handles, std::vector<Leftover>& found) {
    for (const auto& [ifindex, device] : devices.all()) {
        const auto add = [&found, name = device.name](const char* what, const std::vector<QueueStep>& steps) {
            if (steps.empty()) return;
            found.push_back({name, what, [steps](NetlinkChannel& channel) {
                                 for (const QueueStep& step : steps) {
                                     const NetlinkAnswer answer = channel.carryOut(step.request);
                                     if (!answer && answer.error != ENOENT) return answer.problem();
                                 }
                                 return std::string{};
                             }});
        };
        PortQueues have;
        for (const std::uint16_t handle : handles) {
            const NetlinkAnswer answer = readQueues(kernel, ifindex, handle, have);
            if (answer.error == ENODEV) break;  // gone meanwhile
            if (!answer) return concat("cannot read the queues of ", device.name, ": ", answer.problem());
            WantedQueues nothing;
            nothing.ifindex = ifindex;
            nothing.major = handle;
            add("queues that shape classes", planQueues(nothing, have));
        }
        add("filters of incoming frames", planIngressMap(ifindex, {0, 0}, have));
    }
    return {};
}

}  // namespace

std::string findLeftovers(NetlinkChannel& kernel, const DeviceTable& devices, const OwnMarks& marks,
                          std::vector<Leftover>& found) {
    std::string problem = findGroups(kernel, devices, marks.groupProtocols, found);
    return problem.empty() ? findQueues(kernel, devices, marks.queueHandles, found) : problem;
}

}  // namespace Linux
