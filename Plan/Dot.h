/// Graphs in Graphviz's language, as things with attributes and the lines on which they stand.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Plan {

struct DotAttribute {
    std::string value;
    unsigned line = 0;  ///< where it is said, maybe as a default; the line of its owner where that is unknown
};
/// Only those that are not empty: Graphviz cannot tell an empty one from one that is not there.
using DotAttributes = std::map<std::string, DotAttribute, std::less<>>;

struct DotNode {
    std::string name;
    unsigned line = 0;          ///< where it is met first
    bool hasStatement = false;  ///< it stands for itself somewhere, and not as the end of an edge alone
    DotAttributes attributes{};
};

struct DotEdge {
    std::string tail;  ///< the end that is written first
    std::string head;
    unsigned line = 0;
    DotAttributes attributes{};  ///< a port behind a node's name is "tailport" or "headport"
};

struct DotGraph {
    DotAttributes attributes{};
    DotAttributes
        ofParts{};  ///< graph's attributes that are said between braces within it, for that part only
    std::vector<DotNode> nodes{};  ///< in the order of the file
    std::vector<DotEdge> edges{};
};

/// Empty on success, else what is wrong, with the number of its line.
std::string readDot(const std::string& text, DotGraph& graph);

}  // namespace Plan
