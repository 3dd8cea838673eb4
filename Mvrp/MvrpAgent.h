/// The agent: mounts its records, makes the engine and the machine over them, and takes them down in reverse.
#pragma once

#include "Mrp/MrpSm.h"
#include "Mvrp/MvrpSm.h"
#include "Runtime/Agent.h"

#include <memory>

namespace Mvrp {

/// Makes the records that the agent mounts.
void populate(State::Database& database);

class Agent : public Runtime::Agent {
public:
    using StreamVlan = std::function<VlanId(IntfId)>;

    /// `ports` send and receive MVRP's frames, and must outlive the agent; `streamVlan` tells the VLAN that
    /// streams use on a port.
    Agent(Runtime::AgentEnvironment environment, Mrp::PacketPortProvider& ports, StreamVlan streamVlan);
    ~Agent() override;

    /// What `streamVlan` answers has changed.
    void streamVlansChanged() {
        if (mvrpSm_) mvrpSm_->streamVlansChanged();
    }
    /// Null before the mounts are complete and after clean-up.
    [[nodiscard]] Mrp::MrpSm* mrpSm() const { return mrpSm_.get(); }

private:
    void doInit() override;
    void doMountsComplete(Runtime::MountStatus status) override;
    void doCleanup() override;

    Mrp::PacketPortProvider& ports_;
    const StreamVlan streamVlan_;
    std::unique_ptr<MvrpSm> mvrpSm_;
    std::unique_ptr<Mrp::MrpSm> mrpSm_;
};

}  // namespace Mvrp
