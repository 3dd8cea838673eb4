/// `msrpctl explain`: one stream from its talker to each port: the rule that decided, with what it looked at,
/// since when, whose failure it is, and what would mend it.
#pragma once

#include "Show/BridgeNames.h"
#include "Show/Verdict.h"

#include <string>
#include <utility>
#include <vector>

namespace Show {

/// What is looked at besides `judgedRecords`, when those are there; some of it may be missing.
std::vector<std::string> explainMore(const Snapshot& snapshot, Msrp::U64 id);

struct Explanation {
    Msrp::U64 id = 0;
    std::string name;         ///< of the talker; empty where it has none
    std::string destination;  ///< empty while no talker has told, as are all below
    std::string srClass;
    Msrp::U64 vlan = 0;
    Msrp::U64 priority = 0;
    Msrp::U64 kbps = 0;
    Msrp::U64 maxFrameSize = 0;
    Msrp::U64 maxIntervalFrames = 0;
    std::string from;  ///< the talker's port
    Verdict talker;
    std::vector<std::pair<std::string, Verdict>> ports;  ///< the others
    std::vector<std::string> remarks;                    ///< what holds for all ports
};

/// Of that stream, to every enabled port, or to `port` alone where it is not empty.
Explanation explain(const Snapshot& snapshot, const BridgeNames& names, Msrp::U64 id,
                    const std::string& port);

/// Ports to which the same happens share their lines.
std::string explainText(const Explanation& explanation, const Page& page = {});
State::Value explainValue(const Explanation& explanation);
/// What that is.
State::Schema explainSchema();

}  // namespace Show
