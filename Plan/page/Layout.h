/// Where Graphviz puts the devices of a network.
#pragma once

#include "Plan/Network.h"

#include <string_view>
#include <vector>

namespace Plan {

/// In points, from the left and from above.
struct Spot {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};
struct Layout {
    double width = 0;
    double height = 0;
    std::vector<Spot> devices{};  ///< their middles
};

/// By the engine that the file names as its `layout`, or one that suits the network's size.  The same for the
/// same network, whatever fonts there are.
Layout layOut(const Network& network);

/// The engines that a file may name.
bool isLayout(std::string_view name);

}  // namespace Plan
