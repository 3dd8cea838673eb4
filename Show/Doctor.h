/// `msrpctl doctor`: what keeps a bridge from carrying streams, as a table.
#pragma once

#include "Linux/doctor/Doctor.h"
#include "Show/Page.h"
#include "State/Schema.h"
#include "State/Value.h"

#include <string>
#include <vector>

namespace Show {

/// By device and check.
State::Value doctorValue(const std::vector<Linux::Finding>& findings);
/// What that is.
State::Schema doctorSchema();
/// One row for each finding, and what it comes to.
std::string doctorText(const std::string& bridge, const std::vector<Linux::Finding>& findings,
                       const Page& page = {});
/// Whether streams pass as they were promised.
bool healthy(const std::vector<Linux::Finding>& findings);

}  // namespace Show
