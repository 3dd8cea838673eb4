/// What the kernel's bridge can do of what reservations need, and how well it does it.
#pragma once

#include "programs/Snapshot.h"

#include <string>

namespace Show {

/// The records that `capabilitiesText` looks at.
inline constexpr std::string_view capabilitiesPath = "linux/capabilities";
inline constexpr std::string_view groupsPath = "linux/groups";

/// The kernel's abilities, the way in which each port is shaped, and the room for groups.
std::string capabilitiesText(const Snapshot& snapshot);

}  // namespace Show
