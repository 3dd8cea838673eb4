/// What the agent has done, as it remembers it itself.
#pragma once

#include "Runtime/RingLog.h"

#include <string>

namespace Show {

/// One line: number, time of day ("-" where it is not known) and on the process's clock, label, arguments.
std::string ringText(const Runtime::RingRecord& record);

}  // namespace Show
