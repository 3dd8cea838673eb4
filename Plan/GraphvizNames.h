/// The attributes that Graphviz itself knows, which a network's drawing may have as it likes.
#pragma once

#include <string_view>

namespace Plan {

bool isGraphvizName(std::string_view name);

}  // namespace Plan
