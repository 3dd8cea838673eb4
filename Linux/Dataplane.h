/// The bridge of this machine as the switch: the agents that keep the switch's records true, and those that
/// carry out what the records ask for.
///
/// What changes in a turn of the loop is carried out at its end, in an order that never lets a stream run
/// without its bandwidth: rates that grow, then forwarding, then rates that shrink.
#pragma once

#include "Linux/bridge/BridgeAgent.h"
#include "Linux/doctor/Capabilities.h"
#include "Linux/fence/FenceAgent.h"
#include "Linux/groups/GroupAgent.h"
#include "Linux/kernel/ModuleNews.h"
#include "Linux/kernel/Netlink.h"
#include "Linux/queues/ShaperAgent.h"
#include "Linux/vlans/VlanAgent.h"
#include "Switch/Outcomes.h"

#include <memory>
#include <string>
#include <vector>

namespace Linux {

class Dataplane {
public:
    struct Records {
        std::shared_ptr<const Config> config;
        // What the kernel's bridge is and does.
        std::shared_ptr<Bridging::Config> bridging;
        std::shared_ptr<Bridging::Topology::Config> topology;
        std::shared_ptr<Stp::Status> stp;
        // What it is asked to do.
        std::shared_ptr<const Bridging::Input::Config> groups;
        std::shared_ptr<const Bridging::VlanRequests> vlans;
        std::shared_ptr<const Qos::Input::Config> queues;
        std::shared_ptr<const Qos::Status> queueMap;
        std::shared_ptr<const Qos::HwStatus> hardwareQueueMap;
        std::shared_ptr<const Switch::Domain> domain;
        std::shared_ptr<Switch::Streams> streams;
        // How that goes.
        std::shared_ptr<GroupStatus> groupStatus;
        std::shared_ptr<Bridging::VlanMembers> vlanMembers;
        std::shared_ptr<Switch::Refusals> refusals;
        std::shared_ptr<CapabilityStatus> capabilities;
        std::shared_ptr<FenceStatus> fence;
        std::shared_ptr<TrafficStatus> traffic;
        /// Hears what the kernel has carried out.
        std::shared_ptr<const Switch::Outcomes> outcomes = std::make_shared<Switch::Outcomes>();
    };

    /// Loop and devices must outlive it; `files` is what the paths of files begin with that it may keep.
    /// `served` as for `GroupAgent`.
    Dataplane(Runtime::FdLoop& loop, DeviceTable& devices, const Records& records, const std::string& files,
              const Report& report, const GroupAgent::Served& served = {});

    /// To be called after the table of devices was started.  Empty on success, else why this machine cannot
    /// be asked at all; then all is as it was before.
    std::string start();
    /// Takes back what was done to the kernel.
    void stop();

    /// Compares records and kernel: a line for each difference.
    [[nodiscard]] std::vector<std::string> audit(bool repair);

private:
    void wake();
    void carryOut();
    /// Looks what the machine can do now.
    void probe();
    void probed(const Abilities& abilities);
    /// Whether it would help if it could do more.
    [[nodiscard]] bool lacking() const;

    Runtime::FdLoop& loop_;
    NetlinkRequests requests_;
    const Report report_;
    const std::shared_ptr<const Config> config_;
    const std::shared_ptr<CapabilityStatus> capabilities_;
    AbilityProbe probe_;
    ModuleNews modules_;
    Runtime::Timer probeAgain_;
    Runtime::Duration patience_{};
    bool woken_ = false;
    /// Who finds it expired must not touch anything here.
    const std::shared_ptr<char> life_ = std::make_shared<char>();
    BridgeAgent bridge_;
    VlanAgent vlans_;
    GroupAgent groups_;
    const std::shared_ptr<OwnPlaces> places_ = std::make_shared<OwnPlaces>();
    ShaperAgent queues_;
    FenceAgent fence_;
};

}  // namespace Linux
