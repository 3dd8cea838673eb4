#include "Plan/explore/Small.h"

#include "Plan/Reader.h"
#include "Runtime/Text.h"
#include "State/Codec.h"

#include <algorithm>
#include <array>
#include <random>
#include <set>

namespace Plan {

using Runtime::concat;

namespace {

/// Two thirds of a link at 100 Mbit/s, of which class A may have three quarters.
constexpr const char* drawnStreams = "size=1000 frames=1];";

std::string drawnSmall(unsigned bridges, bool ring) {
    std::string out = "graph{edge[speed=\"100M\"]";
    for (unsigned i = 1; i <= bridges; ++i) {
        out += concat("sw", i, "[kind=bridge];a", i, "[kind=station];b", i, "[kind=station];a", i, "--sw", i,
                      ";b", i, "--sw", i, ';');
        if (i > 1) out += concat("sw", i - 1, "--sw", i, ';');
    }
    if (ring) out += concat("sw", bridges, "--sw1;");
    if (bridges == 1) {
        for (const char* stream : {"s1", "s2"})
            out += concat(stream, "[kind=stream talker=a1 listeners=b1 ", drawnStreams);
    } else {
        out += concat("s1[kind=stream talker=a1 listeners=\"b", bridges, " b1\" ", drawnStreams);
        out += concat("s2[kind=stream talker=a2 listeners=\"b", bridges, " a1\" ", drawnStreams);
    }
    return out + '}';
}

std::string drawnRandom(std::uint64_t seed) {
    std::mt19937_64 random{seed};
    const auto pick = [&random](std::uint64_t below) { return random() % below; };
    const auto oneOf = [&pick](const auto& all) { return all[pick(all.size())]; };
    const std::array speeds{"100M", "100M", "1G", "1G", "1G", "10M"};
    std::string out = "graph{";
    const std::uint64_t bridges = 5 + pick(16);
    std::uint64_t stations = 0;
    std::set<std::pair<std::uint64_t, std::uint64_t>> links;
    for (std::uint64_t i = 1; i <= bridges; ++i) {
        const std::uint64_t a = 20 + pick(56);
        out += concat("sw", i, "[kind=bridge srClassABandwidthPercent=", a,
                      " srClassBBandwidthPercent=", pick(76 - a), "];");
        if (i > 1) links.emplace(1 + pick(i - 1), i);
        for (std::uint64_t left = 1 + pick(2); left > 0; --left)
            out += concat('e', ++stations, "[kind=station];e", stations, "--sw", i, "[speed=\"",
                          oneOf(speeds), "\"];");
    }
    for (std::uint64_t rings = pick(3); rings > 0; --rings) {
        const std::uint64_t to = 2 + pick(bridges - 1);
        links.emplace(1 + pick(to - 1), to);
    }
    for (const auto& [from, to] : links)
        out += concat("sw", from, "--sw", to, "[speed=\"", oneOf(speeds), "\"];");
    for (std::uint64_t i = 1; i <= bridges; ++i) {
        const std::uint64_t talker = 1 + pick(stations);
        std::set<std::uint64_t> listeners;
        for (std::uint64_t left = 1 + pick(3); left > 0; --left) listeners.insert(1 + pick(stations));
        listeners.erase(talker);
        if (listeners.empty()) listeners.insert(talker % stations + 1);
        std::string names;
        for (const std::uint64_t listener : listeners) names += concat('e', listener, ' ');
        out += concat('s', i, "[kind=stream talker=e", talker, " class=", pick(3) == 0 ? 'B' : 'A',
                      " frames=", 1 + pick(2), " size=", 50 + pick(1200), " listeners=\"", names, "\"];");
    }
    return out + '}';
}

}  // namespace

const std::vector<std::string>& smallNetworks() {
    static const std::vector<std::string> names{"line-1", "line-2", "line-3", "ring-3"};
    return names;
}

std::optional<Network> networkNamed(std::string_view name) {
    constexpr std::string_view random = "random-";
    std::string drawing;
    if (name.starts_with(random)) {
        const auto seed = State::parseDecimal(name.substr(random.size()), UINT64_MAX);
        if (!seed) return std::nullopt;
        drawing = drawnRandom(*seed);
    } else {
        if (std::ranges::count(smallNetworks(), name) == 0) return std::nullopt;
        drawing = drawnSmall(static_cast<unsigned>(name.back() - '0'), name.starts_with("ring"));
    }
    Problems problems;
    return readNetwork(drawing, std::string{name}, {}, problems);
}

}  // namespace Plan
