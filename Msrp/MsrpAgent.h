/// The agent: gets its records mounted, makes the protocol objects over them in order, hands them their role,
/// and takes them down in reverse.
#pragma once

#include "Mrp/MrpAttrLogSm.h"
#include "Mrp/MrpSm.h"
#include "Mrp/PacketPort.h"
#include "Mrp/Records.h"
#include "Msrp/MsrpLib.h"
#include "Msrp/MsrpSm.h"
#include "Msrp/RedundancyStatusSm.h"
#include "Msrp/domain/DomainPublisher.h"
#include "Msrp/talker/StreamPublisher.h"
#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Runtime/Agent.h"
#include "Switch/TopologyLibrary.h"

#include <memory>

namespace Msrp {

class Agent : public Runtime::Agent {
public:
    /// `ports` must outlive the agent.
    Agent(Runtime::AgentEnvironment environment, Mrp::PacketPortProvider& ports);
    ~Agent() override;

    /// The redundancy role; a change runs the standby handling once the state machine exists.
    void standbyModeIs(bool standby);
    [[nodiscard]] bool standbyMode() const { return standbyMode_; }
    [[nodiscard]] bool mountsComplete() const { return mountsComplete_; }
    /// Takes back everything that was declared on any port, so that peers need not find out by themselves;
    /// for a clean end of the process.  Does nothing in standby.
    void withdraw();
    /// Null before the mounts are complete and after clean-up.
    [[nodiscard]] MsrpSm* msrpSm() const { return msrpSm_.get(); }
    [[nodiscard]] Mrp::MrpSm* mrpSm() const { return mrpSm_.get(); }
    [[nodiscard]] Mrp::MrpAttrLogSm* msrpAttrLogSm() const { return msrpAttrLogSm_.get(); }

private:
    void doInit() override;
    void doMountsComplete(Runtime::MountStatus status) override;
    void doCleanup() override;
    void handleStandbyMode();
    void fetchRecords();

    Mrp::PacketPortProvider& ports_;
    std::shared_ptr<const CliConfig> msrpCliConfig_;
    std::shared_ptr<const Config> msrpConfig_;
    std::shared_ptr<Status> msrpStatus_;
    std::shared_ptr<Waiting> msrpWaiting_;
    std::shared_ptr<const Mrp::MrpConfig> mrpConfig_;
    std::shared_ptr<Mrp::MrpStatus> mrpStatus_;
    std::shared_ptr<Mrp::AttributesStatus> mrpAttributes_;
    std::shared_ptr<const Bridging::Config> brConfig_;
    std::shared_ptr<const Stp::Status> stpStatus_;
    std::shared_ptr<Qos::Input::Config> qosMsrpConfig_;
    std::shared_ptr<const Qos::Status> qosStatus_;
    std::shared_ptr<const Qos::HwStatus> qosHwStatus_;
    std::shared_ptr<Bridging::Input::Config> brMsrpConfig_;
    std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> ethPhyIntfStatusDir_;
    std::shared_ptr<const Interface::EthIntfStatusDir> ethIntfStatusDir_;
    std::shared_ptr<const Bridging::Topology::Config> bridgingTopoConfig_;
    std::shared_ptr<Bridging::Topology::Status> bridgingTopoStatus_;
    std::shared_ptr<const Switch::Refusals> refusals_;
    std::shared_ptr<const Switch::TimeStatus> time_;
    std::shared_ptr<Switch::Domain> domain_;
    std::shared_ptr<Switch::Streams> streams_;
    std::unique_ptr<RedundancyStatusSm> redundancyStatusSm_;
    std::shared_ptr<Bridging::Topology::TopoLibState> topoLibState_;
    std::unique_ptr<Bridging::Topology::TopoLibSm> topoLibSm_;
    std::unique_ptr<MsrpLib> msrpLib_;
    std::unique_ptr<Mrp::MrpSm> mrpSm_;
    std::unique_ptr<Mrp::MrpAttrLogSm> msrpAttrLogSm_;
    std::unique_ptr<MsrpSm> msrpSm_;
    std::unique_ptr<DomainPublisher> domainPublisher_;
    std::unique_ptr<StreamPublisher> streamPublisher_;
    bool mountsComplete_ = false;
    bool standbyMode_ = false;
};

/// Makes agents that use `ports`, which must outlive them.
Runtime::AgentFactory agentFactory(Mrp::PacketPortProvider& ports);

}  // namespace Msrp
