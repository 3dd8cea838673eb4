/// What must always hold of a bridge, whatever its peers and its operator do.  For tests of every kind.
#pragma once

#include "Sim/Bridge.h"

#include <compare>
#include <cstdint>
#include <set>
#include <string>

namespace Sim {

/// Groups are what admission made of them, allocations are their sum, and queues have their rates.  Empty, or
/// what is wrong in words.
std::string forwardingFault(Bridge& bridge);
/// The census counts every published stream once, in the turn in which it changed.  The same.
std::string censusFault(const Bridge& bridge);

/// A declaration on a port.
struct Declaration {
    std::uint8_t type;
    std::uint64_t key;
    unsigned detail;  ///< a Talker Failed's code or a Listener's state
    auto operator<=>(const Declaration&) const = default;
};
using Declarations = std::set<Declaration>;

/// What the agent believes it declares on a port, but for the domains.
Declarations believed(Bridge& bridge, IntfId intf);
/// What the port's applicants declare.
Declarations applied(Bridge& bridge, IntfId intf);
/// What one side has and the other has not, in words; empty when they agree.
std::string difference(const Declarations& have, const Declarations& want);

}  // namespace Sim
