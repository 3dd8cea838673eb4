#include "programs/PortClaims.h"

#include <vector>

std::string PortClaims::take(const State::Value* enable, Patience patience) {
    const State::Object* ports = enable != nullptr ? enable->object() : nullptr;
    if (ports == nullptr) return {};
    std::vector<std::string> taken;
    for (const auto& [port, on] : *ports) {
        const std::string wanted = claim(port);
        if (on != State::Value{true} || claims_.has(wanted)) continue;
        if (std::string problem = claims_.take(wanted, patience); !problem.empty()) {
            for (const std::string& earlier : taken) claims_.giveBack(earlier);
            return std::string{"msrp/config/intfEnable/"}.append(port).append(": ").append(problem);
        }
        taken.push_back(wanted);
    }
    return {};
}
