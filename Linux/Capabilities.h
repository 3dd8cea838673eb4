/// Finds out at start what the kernel can do, without touching anything that is in use.
#pragma once

#include "Linux/CapabilityStatus.h"

#include <string>
#include <vector>

namespace Linux {

/// Tries everything in a network namespace of a child process, which vanishes with it.  Kernel modules that
/// are needed get loaded.  Takes some milliseconds.  All is unknown where this process may not make a
/// namespace: then the first real request tells.
Abilities probeAbilities();

/// What is not possible on this machine, a line for each ability that is absent.
std::vector<std::string> limitations(const Abilities& abilities);

}  // namespace Linux
