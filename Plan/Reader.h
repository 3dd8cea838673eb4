/// Networks as Graphviz draws them.
///
/// Nodes are bridges (`kind=bridge`), stations (`kind=station`) and streams (`kind=stream`), edges are links.
/// A bridge takes the fields of the agent's configuration as attributes under their own names; where two
/// records have a field of that name, with the record's path before it ("mrp/config/leaveAllTime").
/// Attributes of Graphviz itself pass.
#pragma once

#include "Plan/Fields.h"
#include "Plan/Network.h"

#include <functional>
#include <string>

namespace Plan {

/// The text of a file that another one names; nothing, and why, when it cannot be read.
using OtherFile = std::function<std::string(const std::string& name, std::string& problem)>;

/// Reads a network; with problems it is not to be used.  `file` is for what is said of places.
Network readNetwork(const std::string& text, const std::string& file, const OtherFile& other,
                    Problems& problems);

}  // namespace Plan
