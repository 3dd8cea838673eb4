/// Tells the rest of the switch, in "switch/domain", which ports are core ports for which priorities.
#pragma once

#include "Msrp/types/Config.h"
#include "Msrp/types/Status.h"
#include "Switch/Domain.h"

#include <map>
#include <memory>

namespace Msrp {

/// In standby, as it begins, the record is another agent's; one that goes to standby leaves no core port
/// behind.
class DomainPublisher {
public:
    DomainPublisher(std::shared_ptr<const CliConfig> config, std::shared_ptr<const Status> status,
                    std::shared_ptr<Switch::Domain> domain);
    DomainPublisher(const DomainPublisher&) = delete;
    DomainPublisher& operator=(const DomainPublisher&) = delete;
    /// Leaves no core port behind.
    ~DomainPublisher();

    void standbyModeIs(bool standby);

private:
    void publishAll();
    void publish(IntfId intf);
    void follow(IntfId intf);

    const std::shared_ptr<const CliConfig> config_;
    const std::shared_ptr<const Status> status_;
    const std::shared_ptr<Switch::Domain> domain_;
    bool standby_ = true;
    State::Reactor configChanged_;
    State::Reactor portsChanged_;
    std::map<IntfId, State::Reactor> classesChanged_;
};

}  // namespace Msrp
