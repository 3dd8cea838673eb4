#include "Runtime/Agent.h"

namespace Runtime {

namespace {
constexpr LogEvent AGENT_MOUNT_FAILED{
    .name = "AGENT_MOUNT_FAILED",
    .severity = 3,
    .format = "%s",
    .explanation = "A record that an agent cannot work without is missing",
    .recommendedAction = "Check that the agents that own the record are running."};
}  // namespace

void Agent::start() {
    started_ = true;
    doInit();
    std::string failure;
    const MountStatus status = entityManager_.doMounts(failure);
    if (status != MountStatus::success) environment_.systemLog.log(AGENT_MOUNT_FAILED, failure);
    doMountsComplete(status);
}

void Agent::stop() {
    if (!started_) return;
    started_ = false;
    doCleanup();
    entityManager_.localEntityDelAll();
}

}  // namespace Runtime
