#include "Plan/Dot.h"

#include "Plan/DotLines.h"

#include <algorithm>
#include <graphviz/cgraph.h>
#include <memory>

namespace Plan {

namespace {

struct Close {
    void operator()(Agraph_t* graph) const { agclose(graph); }
};

std::string taken(const char* text) { return text == nullptr ? std::string{} : std::string{text}; }

/// Those of one object; `lineOf` tells where an attribute of that name is said.
template <class LineOf>
DotAttributes attributesOf(Agraph_t* graph, int kind, void* object, const LineOf& lineOf) {
    DotAttributes all;
    for (Agsym_t* symbol = agnxtattr(graph, kind, nullptr); symbol != nullptr;
         symbol = agnxtattr(graph, kind, symbol)) {
        const std::string value = taken(agxget(object, symbol));
        if (!value.empty()) all.emplace(symbol->name, DotAttribute{value, lineOf(symbol->name)});
    }
    return all;
}

/// What the parts of a graph say otherwise than the graph itself.
void partsOf(Agraph_t* whole, Agraph_t* graph, const DotLines& lines, DotAttributes& all) {
    for (Agraph_t* part = agfstsubg(graph); part != nullptr; part = agnxtsubg(part)) {
        for (Agsym_t* symbol = agnxtattr(whole, AGRAPH, nullptr); symbol != nullptr;
             symbol = agnxtattr(whole, AGRAPH, symbol)) {
            const std::string value = taken(agxget(part, symbol));
            if (value != taken(agxget(whole, symbol)))
                all.emplace(symbol->name, DotAttribute{value, lines.graph(symbol->name)});
        }
        partsOf(whole, part, lines, all);
    }
}

/// Its last words: "syntax error in line 3 near '--'".
std::string problem() {
    std::string text = taken(aglasterr());
    std::ranges::replace(text, '\n', ' ');
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text.empty() ? "is no graph" : text;
}

}  // namespace

std::string readDot(const std::string& text, DotGraph& graph) {
    // A NUL would end the text for the library, and the rest would silently be missing.
    if (text.find('\0') != std::string::npos) return "has a NUL in it";
    DotLines lines{text};
    if (!lines.problem().empty()) return lines.problem();
    // It tells on standard error otherwise.
    agseterr(AGMAX);
    agreseterrors();
    agreadline(1);
    // What stands behind the graph would be taken as the beginning of the next one that is read.
    const std::unique_ptr<Agraph_t, Close> read{agmemread(text.substr(0, lines.end()).c_str())};
    if (!read || agerrors() >= AGERR) return problem();
    if (agisstrict(read.get()) != 0)
        return "is strict, so that of two links between two devices one would be lost";
    graph = {};
    partsOf(read.get(), read.get(), lines, graph.ofParts);
    graph.attributes =
        attributesOf(read.get(), AGRAPH, read.get(), [&](const char* name) { return lines.graph(name); });
    for (Agnode_t* node = agfstnode(read.get()); node != nullptr; node = agnxtnode(read.get(), node)) {
        const std::string name = agnameof(node);
        graph.nodes.push_back(
            {.name = name,
             .line = lines.node(name),
             .hasStatement = lines.hasStatement(name),
             .attributes = attributesOf(read.get(), AGNODE, node,
                                        [&](const char* attribute) { return lines.node(name, attribute); })});
    }
    struct Found {
        std::uint64_t order;
        DotEdge edge;
    };
    std::vector<Found> edges;
    for (Agnode_t* node = agfstnode(read.get()); node != nullptr; node = agnxtnode(read.get(), node)) {
        for (Agedge_t* edge = agfstout(read.get(), node); edge != nullptr;
             edge = agnxtout(read.get(), edge)) {
            const std::string tail = agnameof(agtail(edge));
            const std::string head = agnameof(aghead(edge));
            const DotLines::Edge where = lines.takeEdge(tail, head);
            edges.push_back(
                {AGSEQ(edge),
                 {.tail = tail,
                  .head = head,
                  .line = where.line,
                  .attributes = attributesOf(read.get(), AGEDGE, edge,
                                             [&](const char* attribute) { return where.of(attribute); })}});
        }
    }
    std::ranges::sort(edges, {}, &Found::order);
    for (Found& found : edges) graph.edges.push_back(std::move(found.edge));
    return {};
}

}  // namespace Plan
