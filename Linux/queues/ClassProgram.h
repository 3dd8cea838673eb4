/// The packet filter that sorts frames into the SR classes by the priority in the tag that they will leave
/// with.
#pragma once

#include "Linux/queues/SrQueues.h"
#include "Linux/queues/TrafficFilters.h"

#include <cstdint>

namespace Linux {

/// Its result is `classA`, `classB`, or 0 for frames of other priorities and for those without a tag.
ClassProgram classProgram(ClassPriorities priorities, std::uint32_t classA, std::uint32_t classB);

}  // namespace Linux
