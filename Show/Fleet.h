/// `msrpctl --fleet`: streams on their way over several bridges: where each fails first, and who holds the
/// bandwidth there.
#pragma once

#include "Msrp/types/Enums.h"
#include "Show/Page.h"
#include "Show/Snapshot.h"
#include "State/Schema.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Show {

/// Records that are looked at of each bridge, the last of them for its `lastSource` only.
const std::vector<std::string>& fleetRecords();

struct FleetBridge {
    std::string name;
    Snapshot records{};
    std::string asOf{};  ///< when it was heard of last, where it is gone; else empty
};

/// A port by which a stream leaves a bridge, or would.
struct FleetPort {
    std::string port;
    std::string to;  ///< the bridge behind it, empty for a station or what is not known
    std::string listener;
    bool carried = false;
    std::string reason;  ///< why not
    double age = -1.0;   ///< seconds since that changed; negative: not known
};

struct FleetHop {
    std::string bridge;
    std::string asOf;       ///< as the bridge's
    std::string in;         ///< the port towards the talker; empty where no talker is known
    Msrp::U64 latency = 0;  ///< ns, so far
    std::vector<FleetPort> ports;
};

struct FleetFailure {
    std::string bridge;
    std::string port;    ///< empty where a bridge that is not of the fleet tells of it
    Msrp::U64 code = 0;  ///< 0: no failure of the protocol's
    std::string reason;
    double age = -1.0;
    /// Streams that have the port's bandwidth, where it is that which is missing, by kbit/s.
    std::vector<std::pair<Msrp::U64, Msrp::U64>> holders;
};

struct FleetStream {
    Msrp::U64 id = 0;
    std::string srClass{};
    std::string destination{};
    Msrp::U64 vlan = 0;
    Msrp::U64 kbps = 0;
    std::vector<FleetHop> hops{};  ///< from the talker on; bridges that are joined to none of them come last
    std::optional<FleetFailure> failure{};
    std::size_t listeners = 0;  ///< ports behind which stations ask for it
    std::size_t reached = 0;    ///< those of them that carry it
};

/// All of them by their ids, or only one.
std::vector<FleetStream> fleetStreams(const std::vector<FleetBridge>& bridges, std::optional<Msrp::U64> only);
std::string fleetText(const std::vector<FleetStream>& streams, const Page& page = {});
State::Value fleetValue(const std::vector<FleetStream>& streams);
State::Schema fleetSchema();

}  // namespace Show
