#include "Plan/page/Layout.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <graphviz/gvc.h>
#include <memory>
#include <string>

namespace Plan {

namespace {

/// Beyond that what takes the square of it takes too long.
constexpr std::size_t mostForSprings = 300;
constexpr double pointsPerInch = 72;
constexpr double height = 26;
constexpr double margin = 12;

constexpr std::array<std::string_view, 7> engines{"circo", "dot", "fdp", "neato", "osage", "sfdp", "twopi"};

struct CloseGraph {
    void operator()(Agraph_t* graph) const { agclose(graph); }
};
struct CloseContext {
    void operator()(GVC_t* context) const { gvFreeContext(context); }
};

/// The library takes what it does not change as changeable.
char* text(const char* constant) { return const_cast<char*>(constant); }

void set(void* object, const char* name, const std::string& value) {
    agsafeset(object, text(name), text(value.c_str()), text(""));
}

double widthOf(const std::string& name) {
    // UTF-8: octets that go on with a character have no width.
    const auto characters = std::ranges::count_if(name, [](char c) { return (c & 0xc0) != 0x80; });
    return std::max(40.0, 7.0 * static_cast<double>(characters) + 18);
}

}  // namespace

bool isLayout(std::string_view name) { return std::ranges::count(engines, name) != 0; }

Layout layOut(const Network& network) {
    Layout out;
    if (network.devices.empty()) return out;
    // Quiet: all that it could say is of the looks.
    agseterr(AGMAX);
    const std::unique_ptr<GVC_t, CloseContext> context{gvContext()};
    const std::unique_ptr<Agraph_t, CloseGraph> graph{agopen(text("g"), Agundirected, nullptr)};
    set(graph.get(), "overlap", "false");
    set(graph.get(), "splines", "false");
    set(graph.get(), "sep", "+12");
    std::vector<Agnode_t*> nodes;
    for (const Device& device : network.devices) {
        const std::string name = std::to_string(nodes.size());
        nodes.push_back(agnode(graph.get(), text(name.c_str()), 1));
        const double width = widthOf(device.name);
        set(nodes.back(), "shape", "box");
        set(nodes.back(), "fixedsize", "true");
        // Nothing for the library to measure: it may use a font that it has given back already.
        set(nodes.back(), "label", "");
        set(nodes.back(), "width", std::to_string(width / pointsPerInch));
        set(nodes.back(), "height", std::to_string(height / pointsPerInch));
        out.devices.push_back({.width = width, .height = height});
    }
    for (const Link& link : network.links) {
        const bool station =
            !network.devices[link.ends[0].device].bridge || !network.devices[link.ends[1].device].bridge;
        Agedge_t* edge =
            agedge(graph.get(), nodes[link.ends[0].device], nodes[link.ends[1].device], nullptr, 1);
        set(edge, "len", station ? "1.3" : "2");
    }
    const std::string engine = !network.layout.empty()                    ? network.layout
                               : network.devices.size() <= mostForSprings ? "neato"
                                                                          : "sfdp";
    if (gvLayout(context.get(), graph.get(), engine.c_str()) != 0) return out;
    const boxf box = GD_bb(graph.get());
    out.width = box.UR.x - box.LL.x + 2 * margin;
    out.height = box.UR.y - box.LL.y + 2 * margin;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const pointf at = ND_coord(nodes[i]);
        out.devices[i].x = at.x - box.LL.x + margin;
        out.devices[i].y = box.UR.y - at.y + margin;
    }
    gvFreeLayout(context.get(), graph.get());
    return out;
}

}  // namespace Plan
