/// `msrpctl doctor`: what keeps a bridge from carrying streams, as a table.
#pragma once

#include "Linux/doctor/Doctor.h"
#include "State/Value.h"

#include <string>
#include <vector>

namespace Show {

/// By device and check.
State::Value doctorValue(const std::vector<Linux::Finding>& findings);
/// One row for each finding, and what it comes to.
std::string doctorText(const std::string& bridge, const std::vector<Linux::Finding>& findings);
/// Whether streams pass as they were promised.
bool healthy(const std::vector<Linux::Finding>& findings);

}  // namespace Show
