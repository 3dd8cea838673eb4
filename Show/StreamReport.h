/// What an operator asks first: which streams are there, which ports carry them, and why the others do not.
#pragma once

#include "Msrp/types/Enums.h"
#include "Show/Snapshot.h"
#include "Show/WaitReport.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// One enabled port other than the talker's.
struct StreamPortReport {
    std::string name;
    bool carried = false;
    double age = -1.0;     ///< seconds since the port's talker or listener state changed; negative: not known
    std::string talker;    ///< what is declared to the port; empty for nothing
    std::string listener;  ///< what the port asks for; empty for nothing
    std::string reason;    ///< why the stream is not carried; empty when it is
    std::optional<WaitReport> wait;  ///< when it is for want of bandwidth here
};

struct StreamReport {
    Msrp::U64 id = 0;
    std::string from;  ///< the talker's port; empty when no talker is known
    std::string destination;
    std::string srClass;             ///< "A" or "B"
    std::string talker;              ///< as the talker's port declares it
    std::string failure;             ///< why the talker's side has failed already; empty when it has not
    std::optional<WaitReport> wait;  ///< when it is because another stream has the address
    double age = -1.0;               ///< as in the port's report, of the talker's port
    Msrp::U64 vlan = 0;
    Msrp::U64 kbps = 0;
    std::vector<StreamPortReport> ports;
    State::Value record;  ///< all that the daemon publishes of the stream
};

/// In the order of their ids.
std::vector<StreamReport> streamReports(const Snapshot& snapshot);
/// Of one stream, if it is registered.
std::optional<StreamReport> streamReport(const Snapshot& snapshot, Msrp::U64 id);

/// The talker's address and unique id: "00:11:22:33:44:55/1" (IEEE 802.1Q 35.2.2.8.2).
std::string streamName(Msrp::U64 id);
/// The number in either form, "0x..." or that of `streamName`.
std::optional<Msrp::U64> parseStream(std::string_view text);

}  // namespace Show
