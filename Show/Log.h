/// What the agent has done, as it remembers it itself.
#pragma once

#include "Runtime/RingLog.h"
#include "State/Schema.h"
#include "State/Value.h"

#include <optional>
#include <string>

namespace Show {

/// "2026-11-21T22:56:42.123456Z", with so many digits of the second, at most 6; "-" for none.
std::string wallText(const std::optional<Runtime::WallTime>& time, unsigned digits = 6);

/// One line: number, time of day ("-" where it is not known) and on the process's clock, label, arguments.
std::string ringText(const Runtime::RingRecord& record);
/// The same for programs, and what that is.
State::Value ringValue(const Runtime::RingRecord& record);
State::Schema ringSchema();

}  // namespace Show
