#include "Linux/doctor/DoctorFacts.h"

#include "Linux/doctor/Capabilities.h"
#include "Linux/groups/GroupMessage.h"
#include "Linux/kernel/EpollLoop.h"
#include "Linux/links/DeviceTable.h"
#include "Linux/links/Ethtool.h"
#include "Linux/queues/PortQueues.h"
#include "Linux/time/TimeAgent.h"
#include "Runtime/Text.h"

#include <chrono>
#include <linux/rtnetlink.h>
#include <set>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Linux {

using Runtime::concat;

namespace {

/// For the answers of ptp4l.
constexpr std::chrono::milliseconds ptpPatience{600};
/// Of a bridge that is yet to be made.
constexpr const char* usualName = "br0";

std::string chooseBridge(const DeviceTable& devices, std::string& name) {
    if (!name.empty()) return {};
    std::string names;
    for (const auto& [ifindex, device] : devices.all()) {
        if (!device.bridgeSettings) continue;
        names += (names.empty() ? "" : ", ") + device.name;
        name = device.name;
    }
    if (names.empty()) name = names = usualName;
    return names == name ? "" : concat("there are several bridges, and --bridge names none of them: ", names);
}

std::string readVlans(NetlinkChannel& kernel, VlanTable& vlans) {
    const NetlinkAnswer answer = kernel.dump(
        RTM_GETVLAN, vlanDumpBody(), [&] { vlans.clear(); },
        [&](const nlmsghdr& message) {
            if (const auto told = decodeVlans(message)) enter(vlans, *told);
        });
    return answer ? "" : concat("cannot read the VLANs of bridges: ", answer.problem());
}

/// Groups of the bridge that is looked at; `routers` gets its ports that get all of them.
std::string readGroups(NetlinkChannel& kernel, DoctorFacts& facts, std::set<unsigned>& routers) {
    const unsigned bridge = facts.device->ifindex;
    std::vector<GroupEntry> entries;
    const NetlinkAnswer answer = kernel.dump(
        RTM_GETMDB, groupDumpBody(), [&] { entries.clear(), routers.clear(); },
        [&](const nlmsghdr& message) {
            for (GroupEntry& entry : decodeGroups(message, bridge)) entries.push_back(std::move(entry));
            for (const unsigned port : decodeRouters(message, bridge)) routers.insert(port);
        });
    std::set<Group> groups;
    for (const GroupEntry& entry : entries) groups.insert(entry.member.group);
    facts.groups = groups.size();
    facts.notOffloaded = notOffloaded(entries).size();
    return answer ? "" : concat("cannot read the groups of bridges: ", answer.problem());
}

void askTime(EpollLoop& loop, const std::string& ptp4l, DoctorFacts& facts) {
    if (::access(ptp4l.c_str(), F_OK) != 0) return;
    auto status = std::make_shared<Switch::TimeStatus>();
    bool answers = false;
    TimeAgent agent{loop, status, [&](bool good, const std::string&) { answers = good; }, {}};
    constexpr TimeAgent::Pace pace{ptpPatience / 3, ptpPatience};
    facts.clockProblem = agent.start(ptp4l, pace);
    if (!facts.clockProblem.empty()) return;
    // Its ports answer one after the other.
    loop.runUntil([] { return false; }, ptpPatience);
    if (!answers) {
        facts.clockProblem = concat("the ptp4l at ", ptp4l, " does not answer");
        return;
    }
    auto told = std::make_shared<Switch::TimeStatus>();
    std::as_const(*status).port().each(
        [&](IntfId intf, const Switch::PortTime& port) { told->portIs(intf, port.capable(), port.state()); });
    facts.time = std::move(told);
}

}  // namespace

std::string examine(const std::string& bridge, VlanId srVlan, const std::string& ptp4l, DoctorFacts& facts) {
    facts = {};
    facts.bridge = bridge;
    facts.srVlan = srVlan;
    EpollLoop loop;
    DeviceTable devices{loop};
    NetlinkRequests kernel;
    std::string problem = devices.start();
    if (problem.empty()) problem = kernel.open();
    if (problem.empty()) problem = chooseBridge(devices, facts.bridge);
    if (!problem.empty()) return problem;
    facts.abilities = probeAbilities();

    const Device* found = devices.find(facts.bridge);
    if (found == nullptr) return {};
    facts.device = *found;
    if (!found->bridgeSettings) return {};
    VlanTable vlans;
    const std::set<unsigned> ports = devices.portsOf(found->ifindex);  // learning a mode files devices anew
    std::set<unsigned> routers;
    problem = readGroups(kernel, facts, routers);
    if (problem.empty() && found->bridgeSettings->vlanFiltering) problem = readVlans(kernel, vlans);
    if (!problem.empty()) return problem;
    for (const unsigned ifindex : ports) {
        devices.learnMode(ifindex);
        DoctorFacts::Port port;
        port.device = *devices.find(ifindex);
        port.router = routers.contains(ifindex);
        port.vlans = vlans[ifindex];
        port.flowControl = flowControl(port.device.name);
        PortQueues queues;
        if (const NetlinkAnswer answer = readQueues(kernel, ifindex, facts.ownQueueHandle, queues); !answer)
            return concat("cannot read the queues of ", port.device.name, ": ", answer.problem());
        if (queues.root) {
            port.queueKind = queues.root->kind;
            port.queueHandle = static_cast<std::uint16_t>(queues.root->handle >> 16);
        }
        facts.ports.push_back(std::move(port));
    }
    askTime(loop, ptp4l, facts);
    return {};
}

}  // namespace Linux
