/// The reservations of a bridge as the tables of IEEE8021-SRP-MIB (IEEE 802.1Q 17.7.14), below
/// 1.3.111.2.802.1.1.19.
///
/// An instance that has no answer here is left out: the largest interfering frame (ieee8021SrpBridgeBaseMsrp-
/// LatencyMaxFrameSize), of which no latency is computed; and dropped frames of streams that are not policed.
/// Streams and reservations that somebody preloads are none of this bridge's, so these tables are absent.
#pragma once

#include "Monitor/MibTables.h"
#include "Monitor/Mirror.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Monitor {

/// All names are below.
inline const SubIds srpMibObjects{1, 3, 111, 2, 802, 1, 1, 19, 1};

/// What the tables are made of.
std::vector<Wanted> srpMibRecords();

/// The ports that the tables tell of, and whether the protocol is enabled there.
std::map<std::string, bool> srpMibPorts(const Show::Snapshot& snapshot);

/// The numbers of a bridge's ports by their names (dot1dBasePort); a port without a number has no rows.
using PortNumbers = std::map<std::string, std::uint32_t, std::less<>>;
MibTables srpMib(const Show::Snapshot& snapshot, const PortNumbers& numbers);

}  // namespace Monitor
