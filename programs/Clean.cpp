#include "programs/Clean.h"

#include "Linux/kernel/Claims.h"
#include "Linux/kernel/EpollLoop.h"
#include "Show/Table.h"

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
        result.things.push_back({leftover.device, leftover.what, remove && problem.empty(), problem});
        result.all = result.all && problem.empty();
    }
    return result;
}

std::string CleanResult::text() const {
    if (things.empty()) return "nothing is left\n";
    std::string lines;
    bool untouched = true;
    for (const Thing& thing : things) {
        const std::string fate = !thing.problem.empty() ? " stay: " + thing.problem
                                 : thing.removed        ? " removed"
                                                        : "";
        lines += thing.device + ": " + thing.what + fate + '\n';
        untouched = untouched && fate.empty();
    }
    return untouched ? lines + "--yes removes them\n" : lines;
}

namespace {

const Show::Column<CleanResult::Thing> thingColumns[]{
    {"device", [](const auto& t) { return t.device; }},
    {"what", [](const auto& t) { return t.what; }},
    {"removed", [](const auto& t) { return t.removed; }},
    {"problem", [](const auto& t) { return Show::textOrNone(t.problem); }},
};

}  // namespace

template <>
struct State::Codec<CleanResult::Thing> {
    static Value encode(const CleanResult::Thing& thing) { return Show::objectValue(thingColumns, thing); }
    static Schema schema() { return Show::objectSchema(thingColumns); }
};

using Things = Show::Numbered<CleanResult::Thing>;
State::Value CleanResult::value() const { return State::Codec<Things>::encode({things}); }
State::Schema CleanResult::schema() { return State::Codec<Things>::schema(); }
