/// Where the kernel sends streams besides to their listeners.
#pragma once

#include "Show/Snapshot.h"

#include <string>

namespace Show {

/// A line for each such place; empty: nowhere.  Looks at "linux/groups".
std::string floodText(const Snapshot& snapshot);

}  // namespace Show
