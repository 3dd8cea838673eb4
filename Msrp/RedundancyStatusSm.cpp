#include "Msrp/RedundancyStatusSm.h"

#include "Runtime/Assert.h"

namespace Msrp {

namespace {
/// The start-up event after which an active supervisor may act.
const std::string criticalServices = "CriticalServices";
}  // namespace

RedundancyStatusSm::RedundancyStatusSm(std::shared_ptr<const Redundancy::RedundancyStatus> status,
                                       std::function<void(bool)> roleIs, const Runtime::Trace& trace)
    : status_{std::move(status)}, roleIs_{std::move(roleIs)}, trace_{trace} {
    if (!status_) return;
    reactor_ = status_->react([this](const State::Change& change) {
        // The event may complete after the mode was set.
        const auto* event = change.key<std::string>();
        if (change.field == State::fieldName<Redundancy::RedundancyStatus>("mode") ||
            (event != nullptr && *event == criticalServices))
            handleRedundancyMode(std::string{change.field});
    });
    handleRedundancyMode();
}

void RedundancyStatusSm::handleRedundancyMode(const std::string& attribute) {
    trace_(Runtime::TraceLevel::handler, "handleRedundancyMode( ", attribute, " )");
    handleRedundancyMode();
}

void RedundancyStatusSm::handleRedundancyMode() {
    switch (status_->mode()) {
        case Redundancy::Mode::standby:
            roleIs_(true);
            break;
        case Redundancy::Mode::active:
            if (!status_->eventComplete(criticalServices)) break;
            trace_(Runtime::TraceLevel::handler, " Marking event CriticalServices complete...");
            roleIs_(false);
            break;
        case Redundancy::Mode::switchover:
            break;
        default:
            Runtime::require(false, "Unexpected redundancy mode");
    }
}

}  // namespace Msrp
