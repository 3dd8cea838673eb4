/// Follows the switch's redundancy status and turns its mode into the agent's role.
#pragma once

#include "Runtime/Redundancy.h"
#include "Runtime/Trace.h"

#include <functional>
#include <memory>
#include <string>

namespace Msrp {

class RedundancyStatusSm {
public:
    /// `roleIs` is told whether the agent is to stand by, as often as the status says so; a null status
    /// leaves the role alone.
    RedundancyStatusSm(std::shared_ptr<const Redundancy::RedundancyStatus> status,
                       std::function<void(bool)> roleIs, const Runtime::Trace& trace);

    /// An attribute of the status has changed.
    void handleRedundancyMode(const std::string& attribute);
    /// Evaluates the mode that is in force.
    void handleRedundancyMode();

private:
    std::shared_ptr<const Redundancy::RedundancyStatus> status_;
    std::function<void(bool)> roleIs_;
    const Runtime::Trace& trace_;
    State::Reactor reactor_;
};

}  // namespace Msrp
