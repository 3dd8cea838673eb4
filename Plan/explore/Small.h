/// Networks to try things on, drawn by name.
#pragma once

#include "Plan/Network.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Plan {

/// "line-1", "line-2", "line-3", "ring-3": so many bridges with two stations each and two streams that do not
/// both fit where their ways meet.
const std::vector<std::string>& smallNetworks();

/// One of these, or "random-N": 5 to 20 bridges in a tree with up to two rings, with speeds, shares, and
/// streams of both classes that the number decides.
std::optional<Network> networkNamed(std::string_view name);

}  // namespace Plan
