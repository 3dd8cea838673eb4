/// What must always hold of a bridge's forwarding, queues and declarations, whatever its peers say.
#pragma once

#include "Sim/Invariants.h"
#include "fuzz/Check.h"

#include <string>

namespace Fuzz {

inline void checkForwarding(Sim::Bridge& bridge) {
    const std::string fault = Sim::forwardingFault(bridge);
    check(fault.empty(), fault);
}

inline void checkDeclarations(Sim::Bridge& bridge, IntfId intf) {
    const std::string fault = Sim::difference(Sim::applied(bridge, intf), Sim::believed(bridge, intf));
    check(fault.empty(), "the agent declares on ", intf, " something else than it believes: ", fault);
}

}  // namespace Fuzz
