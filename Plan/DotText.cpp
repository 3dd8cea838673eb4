#include "Plan/DotText.h"

#include "Control/Json.h"
#include "Runtime/Text.h"
#include "State/Record.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>
#include <vector>

namespace Plan {

using Runtime::concat;

namespace {

constexpr std::uint16_t usualVlan = 2;
constexpr std::uint16_t usualTreePriority = 32768;

bool isWord(std::string_view text) {
    constexpr std::string_view first = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
    constexpr std::string_view more = "0123456789";
    // Words of the language itself, in any case of letters.
    constexpr auto keywords =
        std::to_array<std::string_view>({"node", "edge", "graph", "digraph", "subgraph", "strict"});
    std::string small{text};
    for (char& c : small) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return !text.empty() && first.find(text.front()) != std::string_view::npos &&
           text.find_first_not_of(std::string{first} + std::string{more}) == std::string_view::npos &&
           std::ranges::find(keywords, small) == keywords.end();
}

bool isNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

std::string word(std::string_view text) {
    if (isWord(text) || isNumber(text)) return std::string{text};
    std::string quoted{'"'};
    for (const char c : text) {
        if (c == '"') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

/// "[a=1, b=2]" of what was added; nothing where nothing was.
class Attributes {
public:
    void add(std::string_view name, std::string_view value) {
        text_.append(text_.empty() ? " [" : ", ").append(word(name)).append("=").append(word(value));
    }
    [[nodiscard]] std::string text() const { return text_.empty() ? text_ : text_ + ']'; }

private:
    std::string text_;
};

/// Of a scalar as people write it, of anything else as JSON.
std::string settingText(const State::Value& value) {
    const auto* text = std::get_if<std::string>(&value.data);
    return text != nullptr ? *text : Control::jsonText(value);
}

std::string bridgeText(const Device& device) {
    Attributes attributes;
    attributes.add("address", device.address.text());
    if (device.treePriority != usualTreePriority)
        attributes.add("priority", std::to_string(device.treePriority));
    for (const auto& [path, patch] : device.records) {
        const State::Object* fields = patch.object();
        if (fields == nullptr) continue;
        for (const auto& [name, value] : *fields) attributes.add(name, settingText(value));
    }
    return concat("        ", word(device.name), attributes.text(), ";\n");
}

std::string stationText(const Device& device) {
    Attributes attributes;
    attributes.add("address", device.address.text());
    return concat("        ", word(device.name), attributes.text(), ";\n");
}

std::string vlansText(const std::vector<std::uint16_t>& vlans) {
    std::string text;
    for (const std::uint16_t vlan : vlans) text += (text.empty() ? "" : " ") + std::to_string(vlan);
    return text.empty() ? "none" : text;
}

std::string linkText(const Network& network, const Link& link) {
    constexpr const char* members[2] = {"tailvlans", "headvlans"};
    Attributes attributes;
    attributes.add("speed", State::enumText(link.speed));
    std::string ends[2];
    for (int i = 0; i < 2; ++i) {
        const LinkEnd& end = link.ends[i];
        const Device& device = network.devices[end.device];
        ends[i] = word(device.name);
        if (!device.bridge) continue;
        ends[i] += ':' + word(end.port);
        if (end.vlans != std::vector{usualVlan}) attributes.add(members[i], vlansText(end.vlans));
    }
    return concat("    ", ends[0], " -- ", ends[1], attributes.text(), ";\n");
}

std::string streamText(const Network& network, const Stream& stream) {
    Attributes attributes;
    attributes.add("talker", network.devices[stream.talker].name);
    std::string listeners;
    for (const std::size_t listener : stream.listeners)
        listeners += (listeners.empty() ? "" : " ") + network.devices[listener].name;
    if (!listeners.empty()) attributes.add("listeners", listeners);
    if (stream.srClass == Msrp::SrClassId::SrClassB) attributes.add("class", "B");
    attributes.add("size", std::to_string(stream.tspec.maxFrameSize));
    if (stream.tspec.maxIntervalFrames != 1)
        attributes.add("frames", std::to_string(stream.tspec.maxIntervalFrames));
    if (stream.vlan != usualVlan) attributes.add("vlan", std::to_string(stream.vlan));
    if (stream.rank != 1) attributes.add("rank", std::to_string(stream.rank));
    attributes.add("destination", stream.destination.text());
    attributes.add("id", State::hexText(stream.id));
    return concat("        ", word(stream.name), attributes.text(), ";\n");
}

}  // namespace

bool dotCanSay(std::string_view name) { return !name.empty() && name.find('\\') == std::string_view::npos; }

std::string dotText(const Network& network) {
    std::string out = "graph {\n";
    if (!network.title.empty()) out += concat("    label=", word(network.title), ";\n");
    if (!network.script.empty()) out += concat("    script=", word(network.script), ";\n");
    const auto section = [&](const char* kind, const std::string& lines) {
        if (!lines.empty()) out += concat("    {\n        node [", kind, "];\n", lines, "    }\n");
    };
    std::string bridges;
    std::string stations;
    for (const Device& device : network.devices) {
        (device.bridge ? bridges : stations) += device.bridge ? bridgeText(device) : stationText(device);
    }
    section("kind=bridge, shape=box", bridges);
    section("kind=station, shape=ellipse", stations);
    for (const Link& link : network.links) out += linkText(network, link);
    std::string streams;
    for (const Stream& stream : network.streams) streams += streamText(network, stream);
    section("kind=stream, shape=note", streams);
    return out + "}\n";
}

}  // namespace Plan
