/// A network as it was read, with all that it leaves to defaults: for programs that build or judge one.
#pragma once

#include "Plan/Network.h"
#include "State/Value.h"

namespace Plan {

/// Of a shape that does not depend on what is in the network.
State::Value networkValue(const Network& network);

}  // namespace Plan
