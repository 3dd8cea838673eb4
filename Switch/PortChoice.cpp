#include "Switch/PortChoice.h"

#include <utility>

std::vector<IntfId> PortChoice::settle() {
    Ports ports;
    for (const auto& [chosen, on] : said_) {
        if (chosen.port) ports.set(chosen.port, on);
    }
    for (const IntfId port : bridgePorts_) {
        if (choosesEvery() && !said_.contains(port)) ports.set(port, true);
    }
    std::vector<IntfId> changed;
    const Ports before = std::exchange(ports_, std::move(ports));
    for (const auto& [port, chosen] : before) {
        if (!ports_.contains(port)) changed.push_back(port);
    }
    for (const auto& [port, chosen] : ports_) {
        const bool* held = before.find(port);
        if (held == nullptr || *held != chosen) changed.push_back(port);
    }
    return changed;
}
