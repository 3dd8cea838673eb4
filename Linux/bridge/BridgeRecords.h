/// The records that tell of the bridge.
#pragma once

#include "Linux/bridge/BridgeFacts.h"
#include "Switch/Bridging.h"
#include "Switch/BridgingTopology.h"
#include "Switch/Stp.h"

#include <memory>

namespace Linux {

struct BridgeRecords {
    std::shared_ptr<Bridging::Config> bridging;
    std::shared_ptr<Bridging::Topology::Config> topology;
    std::shared_ptr<Stp::Status> stp;
};

/// Brings the records in line with the facts; writes what differs and nothing else.  Whoever follows them
/// finds each step sensible: a port leaves as a whole; what else ends does so first; what begins comes last,
/// when the state of its port and its topology are on record.
void bringInLine(const BridgeRecords& records, const BridgeFacts& facts);

}  // namespace Linux
