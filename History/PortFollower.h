/// Follows the ports: their links and speeds, MSRP on them, and what they are to each SR class.
#pragma once

#include "History/Journal.h"
#include "Msrp/types/Status.h"
#include "Switch/Interface.h"

#include <map>
#include <memory>
#include <string>

namespace History {

class PortFollower {
public:
    struct Records {
        std::shared_ptr<const Msrp::Status> status;
        std::shared_ptr<const Interface::AllEthPhyIntfStatusDir> links;
        /// "mrp/attributes": what the peers have declared.
        std::shared_ptr<const State::Entity> attributes;
        std::shared_ptr<Journal> journal;
    };

    explicit PortFollower(Records records);
    PortFollower(const PortFollower&) = delete;
    PortFollower& operator=(const PortFollower&) = delete;

private:
    /// As it was told last.
    struct Told {
        Interface::LinkStatus link = Interface::LinkStatus::linkUnknown;
        Interface::Speed speed = Interface::Speed::speedUnknown;
        bool runs = false;
        std::map<Msrp::SrClassId, Msrp::SrClassState> classes{};
    };

    void linkChanged(const Interface::EthPhyIntfStatus& link);
    void runningChanged(IntfId intf);
    void classChanged(const Msrp::IntfStatus& port, Msrp::SrClassId srClass);
    [[nodiscard]] std::string peerSays(IntfId intf, Msrp::SrClassId srClass) const;
    void tell(IntfId intf, const std::string& field, const std::string& before, const std::string& after);

    const Records records_;
    std::map<IntfId, Told> told_;
    State::Reactor linksChanged_;
    State::Reactor statusChanged_;
};

}  // namespace History
