/// Networks in Graphviz's language, so that somebody can read and change them: what `readNetwork` reads.
#pragma once

#include "Plan/Network.h"

#include <string>
#include <string_view>

namespace Plan {

/// Whether a name can be written, and is read again as it was: Graphviz keeps no lone backslash.
bool dotCanSay(std::string_view name);

/// What can be learnt of a network, less what is as the reader's defaults have it: delays, losses and
/// processing times are left to those.  Whoever calls it has asked `dotCanSay` of all names.
std::string dotText(const Network& network);

}  // namespace Plan
