/// The protocol engine as it stands: timers, frames, and the state machines of every attribute.
#pragma once

#include "Show/Page.h"
#include "Show/Snapshot.h"

#include <string>

namespace Show {

/// Where one port's engine stands.
std::string mrpPath(const std::string& port);
/// All about one port; from its record and those of `engines()`.
std::string mrpText(const Snapshot& snapshot, const std::string& port, const Page& page = {});

}  // namespace Show
