#include "programs/Clean.h"

#include "Linux/kernel/Claims.h"
#include "Linux/kernel/EpollLoop.h"

#include <set>
#include <vector>

namespace {

/// The bridges that are concerned.
std::set<std::string> bridgesOf(const std::vector<Linux::Leftover>& found,
                                const Linux::DeviceTable& devices) {
    std::set<std::string> bridges;
    for (const Linux::Leftover& leftover : found) {
        const Linux::Device* device = devices.find(leftover.device);
        const Linux::Device* bridge = device->bridge != 0 ? devices.find(device->bridge) : device;
        if (bridge != nullptr) bridges.insert(bridge->name);
    }
    return bridges;
}

/// Who keeps one of the bridges, or nothing.
std::string keeper(const std::set<std::string>& bridges) {
    for (const std::string& bridge : bridges) {
        const std::string claim = "bridge " + bridge;
        if (!Linux::Claims::taken(claim)) continue;
        const int process = Linux::Claims::holder(claim);
        return (process != 0 ? "process " + std::to_string(process) : std::string{"a daemon"}) + " keeps " +
               claim;
    }
    return {};
}

}  // namespace

CleanResult clean(const Linux::OwnMarks& marks, bool remove) {
    Linux::EpollLoop loop;
    Linux::DeviceTable devices{loop};
    Linux::NetlinkRequests kernel;
    std::vector<Linux::Leftover> found;
    CleanResult result;
    result.problem = devices.start();
    if (result.problem.empty()) result.problem = kernel.open();
    if (result.problem.empty()) result.problem = Linux::findLeftovers(kernel, devices, marks, found);
    if (!result.problem.empty()) return result;
    if (const std::string who = keeper(bridgesOf(found, devices)); !who.empty()) {
        result.problem = who + "; end it first";
        return result;
    }
    for (const Linux::Leftover& leftover : found) {
        const std::string problem = remove ? leftover.remove(kernel) : "";
        const std::string fate = !problem.empty() ? " stay: " + problem : remove ? " removed" : "";
        result.lines += leftover.device + ": " + leftover.what + fate + '\n';
        result.all = result.all && problem.empty();
    }
    if (found.empty()) {
        result.lines = "nothing is left\n";
    } else if (!remove) {
        result.lines += "--yes removes them\n";
    }
    return result;
}
