/// What the kernel's bridge can do of what reservations need, and how well it does it.
#pragma once

#include "Show/Snapshot.h"

#include <string>

namespace Show {

/// The records that `capabilitiesText` looks at.
inline constexpr std::string_view capabilitiesPath = "linux/capabilities";
inline constexpr std::string_view groupsPath = "linux/groups";

/// Where streams go besides to their listeners, a line for each; empty: nowhere.  Looks at `groupsPath`.
std::string floodText(const Snapshot& snapshot);
/// The kernel's abilities, the way in which each port is shaped, and the room for groups.
std::string capabilitiesText(const Snapshot& snapshot);

}  // namespace Show
