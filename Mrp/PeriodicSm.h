/// The periodic transmission machines of all ports (IEEE 802.1Q 10.7.10), and LeaveAlls out of turn.
#pragma once

#include "Mrp/Tables.h"
#include "Runtime/Loop.h"
#include "Switch/IntfId.h"

#include <functional>
#include <map>
#include <memory>

namespace Mrp {

class PeriodicSm {
public:
    struct Actions {
        std::function<void(IntfId)> periodic;  ///< periodic! for every applicant of the port
        std::function<void(IntfId)>
            leaveAll;  ///< LeaveAll of every type; ignored for a port that is not enabled
    };
    PeriodicSm(Runtime::Loop& loop, Actions actions) : loop_{loop}, actions_{std::move(actions)} {}

    /// Makes the port send a LeaveAll of every type at its next transmit opportunity.
    void transmitAllLeaveAll(IntfId intf) { actions_.leaveAll(intf); }

    /// periodicEnabled! or periodicDisabled! on all ports.
    void enabledIs(bool enabled);
    /// Begins a port's machine.
    void intfIs(IntfId intf);
    void intfDel(IntfId intf) { ports_.erase(intf); }

private:
    struct Port {
        PeriodicState state = PeriodicState::Passive;
        std::unique_ptr<Runtime::Timer> timer;
    };
    void event(IntfId intf, PeriodicEvent event);

    Runtime::Loop& loop_;
    Actions actions_;
    bool enabled_ = false;
    std::map<IntfId, Port> ports_;
};

}  // namespace Mrp
