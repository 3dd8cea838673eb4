/// The protocol engine as it stands: timers, frames, and the state machines of every attribute.
#pragma once

#include "Show/Snapshot.h"
#include "Show/Table.h"

#include <string>

namespace Show {

/// The records of one port's engine that the text below is made of.
std::string mrpPath(const std::string& port);

/// One row for each enabled port whose engine runs; from "mrp/status" and the machines of each port.
Table mrpPorts(const Snapshot& snapshot);
/// All about one port; from "mrp/status" and the port's record.
std::string mrpText(const Snapshot& snapshot, const std::string& port);
/// The port's attributes, one row for each.
Table mrpAttributes(const State::Value& record);

}  // namespace Show
