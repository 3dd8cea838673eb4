/// What the daemon can be asked to do, beside reading and writing its records: by the name that stands in a
/// request's "op".
#pragma once

#include "Control/RecordAccess.h"
#include "State/Value.h"

#include <functional>
#include <map>
#include <string>

namespace Control {

/// Takes the whole request; runs on the loop, so it should not take long.
using Command = std::function<Answer(const State::Value& request)>;
using Commands = std::map<std::string, Command, std::less<>>;

}  // namespace Control
