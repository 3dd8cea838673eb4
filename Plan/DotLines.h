/// Where in a text of Graphviz's language nodes, edges and their attributes stand: what its own reader does
/// not tell.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Plan {

class DotLines {
public:
    explicit DotLines(std::string_view text);

    /// What Graphviz's reader would pass over without a word; empty for nothing.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    /// Octets up to the end of the graph.
    [[nodiscard]] std::size_t end() const { return end_; }

    /// Where the node is met first; 0 for one that is not.
    [[nodiscard]] unsigned node(const std::string& name) const;
    /// Where the node's attribute is said, for it alone or for all; else the line of the node.
    [[nodiscard]] unsigned node(const std::string& name, const std::string& attribute) const;
    /// Whether it stands for itself somewhere, and not as the end of an edge alone.
    [[nodiscard]] bool hasStatement(const std::string& name) const { return statements_.contains(name); }
    /// The graph's own attribute; 1 where that is unknown.
    [[nodiscard]] unsigned graph(const std::string& attribute) const;
    /// The next edge between the two in the order of the file.
    struct Edge {
        unsigned line = 1;
        std::map<std::string, unsigned> attributes{};
        /// Where the attribute is said, or else the edge.
        [[nodiscard]] unsigned of(const std::string& attribute) const;
    };
    Edge takeEdge(const std::string& tail, const std::string& head);

private:
    class Scanner;
    using Attributes = std::map<std::string, unsigned>;

    std::string problem_;
    std::size_t end_ = 0;
    std::map<std::string, unsigned> nodes_;
    std::set<std::string> statements_;
    std::map<std::string, Attributes> nodeAttributes_;
    Attributes graphAttributes_;
    Attributes nodeDefaults_;
    std::map<std::pair<std::string, std::string>, std::deque<Edge>> edges_;
};

}  // namespace Plan
