#include "Plan/page/Drawing.h"

#include "Plan/page/Layout.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <utility>

namespace Plan {

using Runtime::concat;

namespace {

/// As CSS, for the picture alone and within a page.
constexpr std::string_view looks = R"(
.net text { font: 12px sans-serif; text-anchor: middle; dominant-baseline: central; fill: #222 }
.net rect { stroke: #555; fill: #fff }
.net .bridge rect { fill: #dbe7f3; stroke-width: 1.5 }
.net line { stroke-width: 4; stroke: #b9b9b9 }
.net .use1 { stroke: #3f9f57 } .net .use2 { stroke: #d9a400 } .net .use3 { stroke: #d1495b }
.net .blocked { stroke-dasharray: 5 4 } .net .down { stroke-dasharray: 1 5; stroke-width: 2 }
@media (prefers-color-scheme: dark) {
  .net text { fill: #eee } .net rect { fill: #2b2b2b; stroke: #999 } .net .bridge rect { fill: #26384a }
  .net line { stroke: #666 } .net .use1 { stroke: #4cb368 } .net .use2 { stroke: #e0b53a } .net .use3 { stroke: #e2637a }
})";

std::string number(double value) {
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), "%.1f", value);
    return text.data();
}

/// Of what both classes may have together: nothing, up to half, up to nine tenths, or more.
std::string_view classOf(const LinkOutcome& way) {
    const double used = static_cast<double>(way.usedKbps[0] + way.usedKbps[1]);
    const double allowed =
        static_cast<double>(std::max<std::uint64_t>(way.allowedKbps[1] + way.usedKbps[0], 1));
    if (used == 0) return "use0";
    return used <= allowed / 2 ? "use1" : used <= allowed * 0.9 ? "use2" : "use3";
}

std::string wayText(const Network& network, const Link& link, int end, const LinkOutcome& way) {
    const auto name = [&](int at) { return network.devices[link.ends[at].device].name; };
    std::string out = concat(name(end), " -> ", name(1 - end));
    if (!way.up) return out + ": down";
    if (!way.forwards) out += ", blocked";
    if (network.devices[link.ends[end].device].bridge)
        out += concat(": class A ", way.usedKbps[0], " of ", way.allowedKbps[0], " kbps, class B ",
                      way.usedKbps[1], " of ", way.allowedKbps[1]);
    return out;
}

}  // namespace

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // No document may have other control characters.
                out += static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t' ? '?' : c;
        }
    }
    return out;
}

std::string drawing(const Network& network, const Outcome& outcome) {
    const Layout layout = layOut(network);
    std::string out =
        concat("<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"net\" viewBox=\"0 0 ", number(layout.width),
               ' ', number(layout.height), "\" width=\"", number(layout.width), "\" height=\"",
               number(layout.height), "\">\n<style>", looks, "</style>\n");
    std::map<std::pair<std::size_t, std::size_t>, int> between;  // links that are drawn there already
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        const Link& link = network.links[l];
        const Spot& a = layout.devices[link.ends[0].device];
        const Spot& b = layout.devices[link.ends[1].device];
        // Others beside it.
        const int nth = between[std::minmax(link.ends[0].device, link.ends[1].device)]++;
        const double shift = nth % 2 == 0 ? -4.0 * nth : 4.0 * (nth + 1);
        const double length = std::max(1.0, std::hypot(b.x - a.x, b.y - a.y));
        const double dx = -(b.y - a.y) / length * shift;
        const double dy = (b.x - a.x) / length * shift;
        const Spot middle{.x = (a.x + b.x) / 2, .y = (a.y + b.y) / 2};
        for (int end = 0; end < 2; ++end) {
            const Spot& from = end == 0 ? a : b;
            const LinkOutcome& way = outcome.links[l][static_cast<std::size_t>(end)];
            out += concat("<line data-way=\"", 2 * l + static_cast<std::size_t>(end), "\" class=\"",
                          classOf(way),
                          !way.up         ? " down"
                          : !way.forwards ? " blocked"
                                          : "",
                          "\" x1=\"", number(from.x + dx), "\" y1=\"", number(from.y + dy), "\" x2=\"",
                          number(middle.x + dx), "\" y2=\"", number(middle.y + dy), "\"><title>",
                          escaped(wayText(network, link, end, way)), "</title></line>\n");
        }
    }
    for (std::size_t i = 0; i < network.devices.size(); ++i) {
        const Device& device = network.devices[i];
        const Spot& at = layout.devices[i];
        out += concat("<g data-device=\"", i, "\" class=\"", device.bridge ? "bridge" : "station",
                      "\"><rect x=\"", number(at.x - at.width / 2), "\" y=\"", number(at.y - at.height / 2),
                      "\" width=\"", number(at.width), "\" height=\"", number(at.height), "\" rx=\"",
                      device.bridge ? "3" : "13", "\"/><text x=\"", number(at.x), "\" y=\"", number(at.y),
                      "\">", escaped(device.name), "</text></g>\n");
    }
    return out + "</svg>\n";
}

}  // namespace Plan
