#include "programs/PortClaims.h"

#include "Runtime/Text.h"

#include <utility>
#include <vector>

PortClaims::PortClaims(Linux::Claims& claims, std::shared_ptr<const Msrp::Config> msrp,
                       std::shared_ptr<const Mvrp::Config> mvrp)
    : claims_{claims}, msrp_{std::move(msrp)}, mvrp_{std::move(mvrp)} {
    const auto changed = [this](const State::Change& change) {
        if (const auto* port = change.key<IntfId>()) settle(*port);
    };
    msrpReactor_ = msrp_->react(changed);
    mvrpReactor_ = mvrp_->react(changed);
}

void PortClaims::settle(IntfId port) {
    if (!msrp_->intfEnable(port) && !mvrp_->intfEnable().get(port, false))
        claims_.giveBack(claim(port.name()));
}

std::string PortClaims::take(std::string_view path, const State::Value& record, Patience patience) {
    if (path != "msrp/config" && path != "mvrp/config") return {};
    const State::Value* enable = record.member("intfEnable");
    const State::Object* ports = enable != nullptr ? enable->object() : nullptr;
    if (ports == nullptr) return {};
    std::vector<std::string> taken;
    for (const auto& [port, on] : *ports) {
        const std::string wanted = claim(port);
        if (on != State::Value{true} || port == everyPort || claims_.has(wanted)) continue;
        if (const std::string problem = claims_.take(wanted, patience); !problem.empty()) {
            for (const std::string& earlier : taken) claims_.giveBack(earlier);
            return Runtime::concat(path, "/intfEnable/", port, ": ", problem);
        }
        taken.push_back(wanted);
    }
    return {};
}
