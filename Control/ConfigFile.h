/// The configuration file: a JSON object (comments allowed) whose keys are record paths and whose values are
/// those records' fields under their own names.
#pragma once

#include "State/Entity.h"

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Control {

/// The records that a file may write, by the path under which it names them.
using ConfigTargets = std::map<std::string, std::shared_ptr<State::Entity>, std::less<>>;

/// Reads the file, checks all of it, and only then writes it to the targets.  Empty on success, else one line
/// that names the file, the place in it and the reason.
std::string loadConfig(const std::string& file, const ConfigTargets& targets);

}  // namespace Control
