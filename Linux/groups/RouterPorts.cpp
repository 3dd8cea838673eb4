#include "Linux/groups/RouterPorts.h"

#include "Linux/groups/GroupMessage.h"
#include "Runtime/Text.h"

namespace Linux {

using Runtime::concat;

void RouterPorts::look(const Device& port, Runtime::Time now) {
    if (keep_ || port.multicastRouter == 0) return;
    contested_.review(now);
    if (taken_.erase(port.ifindex) != 0 && contested_.changed(port.ifindex, now)) {
        complaint_(concat(port.name,
                          ": somebody makes it a multicast router's port again and again, which gets "
                          "every stream; left alone for a minute"));
    }
    if (contested_.leftAlone(port.ifindex, now)) return;
    // First remembered, then done.
    memory_.routerIs(port.ifindex, port.multicastRouter);
    if (const std::string problem = memory_.flush(); !problem.empty()) complaint_(problem);
    const NetlinkAnswer answer = kernel_.carryOut(multicastRouter(port.ifindex, 0));
    if (answer) {
        taken_.insert(port.ifindex);
        complained_.erase(port.ifindex);
    } else if (complained_.insert(port.ifindex).second) {
        complaint_(concat(port.name,
                          ": cannot keep it from becoming a multicast router's port, which gets every "
                          "stream: ",
                          answer.problem()));
    }
}

void RouterPorts::left(unsigned port) {
    taken_.erase(port);
    complained_.erase(port);
    memory_.routerDel(port);
}

void RouterPorts::giveBack(unsigned port) {
    const auto was = memory_.routers().find(port);
    if (was == memory_.routers().end()) return;
    (void)kernel_.carryOut(multicastRouter(port, was->second));
    left(port);
}

void RouterPorts::giveBackBut(const DeviceTable& devices, unsigned bridge) {
    std::set<unsigned> ports;
    for (const auto& [port, was] : memory_.routers()) ports.insert(port);
    for (const unsigned port : ports) {
        const Device* device = devices.find(port);
        if (device == nullptr || device->bridge == 0 ||
            (device->bridge != bridge && device->multicastRouter != 0)) {
            left(port);
        } else if (device->bridge != bridge) {
            giveBack(port);
        }
    }
}

}  // namespace Linux
