/// The network that running bridges are part of, out of their records: what could be drawn of it, and run.
///
/// Two ports are the ends of one link when each has heard the other's address as the source of its last MSRP
/// frame.  Behind other ports stations are put, where somebody talks or listens.  A reservation that fails
/// for want of bandwidth is asked for later than the others, by the network's script: who came first had it.
#pragma once

#include "Plan/Network.h"
#include "Show/BridgeNames.h"
#include "Show/Snapshot.h"

#include <array>
#include <string>
#include <vector>

namespace Plan {

/// Records that are read of a bridge.
const std::vector<std::string>& learntRecords();

struct RunningBridge {
    std::string name;
    Show::Snapshot records{};
};

/// A link of which somebody knows: at each end a bridge and its port.
struct KnownLink {
    struct End {
        std::string bridge;
        std::string port;
    };
    std::array<End, 2> ends{};
};

struct Learnt {
    Network network{};
    std::vector<std::string> notes{};  ///< what is not in it, or only supposed, one line each
    std::string problem{};             ///< of a link that cannot be; empty: none
};

/// The bridges have names of their own, of letters, digits, '.', '_' and '-'.  `names` knows stations.
Learnt learn(const std::vector<RunningBridge>& bridges, const std::vector<KnownLink>& links,
             const Show::BridgeNames& names);

}  // namespace Plan
