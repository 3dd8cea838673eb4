/// The words of the system for what it could not do.
#pragma once

#include <string>
#include <system_error>

namespace Control {

/// "No such file or directory"
inline std::string systemProblem(int error) { return std::generic_category().message(error); }

}  // namespace Control
