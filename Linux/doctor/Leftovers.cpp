#include "Linux/doctor/Leftovers.h"

#include "Linux/fence/FencePlan.h"
#include "Linux/groups/BridgeMemory.h"
#include "Linux/groups/GroupMessage.h"
#include "Linux/groups/GroupRemoval.h"
#include "Linux/queues/IngressMap.h"
#include "Linux/queues/PortQueues.h"
#include "Linux/queues/QueuePlan.h"
#include "Linux/vlans/MembershipMessage.h"
#include "Linux/vlans/OwnedVlans.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <cerrno>
#include <memory>
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

std::string carryOut(NetlinkChannel& kernel, const std::vector<QueueStep>& steps) {
    for (const QueueStep& step : steps) {
        const NetlinkAnswer answer = kernel.carryOut(step.request);
        if (!answer && answer.error != ENOENT) return answer.problem();
    }
    return {};
}

std::string findQueues(NetlinkChannel& kernel, const DeviceTable& devices,
                       const std::set<std::uint16_t>& handles, std::vector<Leftover>& found) {
    for (const auto& [ifindex, device] : devices.all()) {
        PortQueues have;
        for (const std::uint16_t handle : handles) {
            const NetlinkAnswer answer = readQueues(kernel, ifindex, handle, have);
            if (answer.error == ENODEV) break;  // gone meanwhile
            if (!answer) return concat("cannot read the queues of ", device.name, ": ", answer.problem());
            WantedQueues nothing;
            nothing.ifindex = ifindex;
            nothing.major = handle;
            if (!madeByUs(have, handle)) continue;
            found.push_back({device.name, "queues that shape classes",
                             [steps = planQueues(nothing, have)](NetlinkChannel& channel) {
                                 return carryOut(channel, steps);
                             }});
        }
        if (!mapsIngress(have)) continue;
        found.push_back({device.name,
                         "filters of incoming frames, and their place (clsact) if there are no others",
                         [port = ifindex, have](NetlinkChannel& channel) {
                             std::string problem = carryOut(channel, planIngressMap(port, {0, 0}, have));
                             if (problem.empty() && !hasFilters(channel, port))
                                 problem = carryOut(channel, planIngressRemoval(have));
                             return problem;
                         }});
    }
    return {};
}

std::string findFences(NetlinkChannel& kernel, const DeviceTable& devices, std::vector<Leftover>& found) {
    for (const auto& [ifindex, device] : devices.all()) {
        FencePlace have;
        const NetlinkAnswer answer = readFence(kernel, ifindex, have);
        if (answer.error == ENODEV) continue;  // gone meanwhile
        if (!answer) return concat("cannot read the filters of ", device.name, ": ", answer.problem());
        if (!fenceOf(have)) continue;
        found.push_back(
            {device.name,
             "a filter that takes priorities from incoming frames, and its place (clsact) if there "
             "are no others",
             [port = ifindex, have](NetlinkChannel& channel) {
                 std::string problem = carryOut(channel, planFence(port, std::nullopt, have));
                 if (problem.empty() && !hasFilters(channel, port))
                     problem = carryOut(channel, {{"", deleteQdisc(*have.ingress)}});
                 return problem;
             }});
    }
    return {};
}

std::string findVlans(const DeviceTable& devices, const std::string& files, std::vector<Leftover>& found) {
    if (files.empty()) return {};
    const auto memory = std::make_shared<OwnedVlans>(files + ".vlans");
    if (std::string problem = memory->read(); !problem.empty()) return problem;
    for (const auto& [ifindex, port] : memory->ports()) {
        const Device* device = devices.find(ifindex);
        if (device == nullptr || device->name != port.name || device->bridge == 0) continue;
        found.push_back({device->name, concat("memberships that MVRP had brought: ", vlanText(port.vlans)),
                         [memory, index = ifindex, held = port](NetlinkChannel& channel) {
                             for (const VlanSpan span : spansOf(held.vlans)) {
                                 const NetlinkAnswer answer = channel.carryOut(leaveVlans(index, span));
                                 if (!answer) return answer.problem();
                             }
                             memory->portIs(index, held.name, {});
                             return memory->flush();
                         }});
    }
    return {};
}

std::string findRouterPorts(const DeviceTable& devices, const std::string& files,
                            std::vector<Leftover>& found) {
    if (files.empty()) return {};
    const auto memory = std::make_shared<BridgeMemory>(files + ".bridge");
    if (std::string problem = memory->read(); !problem.empty()) return problem;
    for (const auto& [port, was] : memory->routers()) {
        const Device* device = devices.find(port);
        // Who has given it a role since then wants that one.
        if (device == nullptr || device->bridge == 0 || device->multicastRouter != 0) continue;
        found.push_back({device->name, concat("mcast_router 0 instead of ", unsigned{was}),
                         [memory, port = port, was = was](NetlinkChannel& channel) {
                             const NetlinkAnswer answer = channel.carryOut(multicastRouter(port, was));
                             if (!answer) return answer.problem();
                             memory->routerDel(port);
                             return memory->flush();
                         }});
    }
    return {};
}

}  // namespace

std::string findLeftovers(NetlinkChannel& kernel, const DeviceTable& devices, const OwnMarks& marks,
                          std::vector<Leftover>& found) {
    std::string problem = findGroups(kernel, devices, marks.groupProtocols, found);
    if (problem.empty()) problem = findQueues(kernel, devices, marks.queueHandles, found);
    if (problem.empty()) problem = findFences(kernel, devices, found);
    if (problem.empty()) problem = findVlans(devices, marks.files, found);
    if (problem.empty()) problem = findRouterPorts(devices, marks.files, found);
    return problem;
}

}  // namespace Linux
