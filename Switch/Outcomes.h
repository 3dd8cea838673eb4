/// Word from those who carry records out in the kernel, at the moment when it is done there.  Nothing of it
/// is kept; it may come again for what was done before.
#pragma once

#include "Switch/Refusals.h"

#include <functional>
#include <utility>

namespace Switch {

class Outcomes {
public:
    struct Listener {
        /// The kernel forwards the group to that port.
        std::function<void(const GroupId& group, IntfId intf)> group;
        /// It shapes the port's queues to what is reserved there now.
        std::function<void(IntfId intf)> queues;
    };
    void listenerIs(Listener listener) { listener_ = std::move(listener); }

    void groupIs(const GroupId& group, IntfId intf) const {
        if (listener_.group) listener_.group(group, intf);
    }
    void queuesAre(IntfId intf) const {
        if (listener_.queues) listener_.queues(intf);
    }

private:
    Listener listener_;
};

}  // namespace Switch
