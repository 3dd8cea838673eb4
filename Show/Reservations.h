/// The tables of `msrpctl show`, made from the daemon's records.
#pragma once

#include "Show/Snapshot.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <string>

namespace Show {

/// One row for each stream, and below it the ports that carry it and the reasons of those that do not.
std::string streamsText(const Snapshot& snapshot);
/// The same, whole, by stream id.
State::Value streamsValue(const Snapshot& snapshot);
/// All about one stream.
std::string streamText(const StreamReport& stream);
State::Value streamValue(const StreamReport& stream);

/// Link, forwarding, classes, bandwidth in use and allowed, and how the protocol fares, for each port.
Table ports(const Snapshot& snapshot);
/// What each port is to each class, and the Domain that it declares.
Table domain(const Snapshot& snapshot);
/// Every counter that is not zero.
Table counters(const Snapshot& snapshot);
/// Recent lines of the system log with their age.
std::string logText(const Snapshot& snapshot);

}  // namespace Show
