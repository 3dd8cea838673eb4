/// All ports of the bridge, for those who chose all of them: the choices of both protocols are told which
/// ports these are, as they join and leave the bridge.
#pragma once

#include "Linux/links/DeviceTable.h"
#include "Msrp/types/Config.h"
#include "Mvrp/Records.h"
#include "Runtime/Loop.h"
#include "programs/PortClaims.h"

#include <functional>
#include <memory>
#include <set>
#include <string>

class EveryPort {
public:
    using Complaint = std::function<void(const std::string& line)>;

    /// `devices` was started, and is used no longer than this lives; `claims` must outlive it.  A port that
    /// another daemon has is left out, which `complaint` hears, and is tried again from time to time.
    EveryPort(Runtime::Loop& loop, Linux::DeviceTable& devices, std::string bridge,
              std::shared_ptr<Msrp::Config> msrp, std::shared_ptr<Mvrp::Config> mvrp, PortClaims& claims,
              Complaint complaint);

private:
    void refresh();
    [[nodiscard]] bool concerns(const Linux::Device* device) const;
    [[nodiscard]] std::set<IntfId> members() const;
    /// Claimed, or free and claimed now.
    [[nodiscard]] std::set<IntfId> ours(const std::set<IntfId>& ports);

    Linux::DeviceTable& devices_;
    const std::string bridge_;
    const std::shared_ptr<Msrp::Config> msrp_;
    const std::shared_ptr<Mvrp::Config> mvrp_;
    PortClaims& claims_;
    const Complaint complaint_;
    std::set<IntfId> refused_;
    Runtime::Timer refresh_;
    Runtime::Timer again_;
    State::Reactor msrpReactor_;
    State::Reactor mvrpReactor_;
};
