#include "Runtime/Agent.h"

namespace Runtime {

void Agent::start() {
    started_ = true;
    doInit();
    std::string failure;
    const MountStatus status = entityManager_.doMounts(failure);
    if (status != MountStatus::success) environment_.trace(TraceLevel::notice, failure);
    doMountsComplete(status);
}

void Agent::stop() {
    if (!started_) return;
    started_ = false;
    doCleanup();
    entityManager_.localEntityDelAll();
}

}  // namespace Runtime
