#include "Plan/Report.h"

#include "Msrp/bandwidth/Admission.h"
#include "Plan/Latency.h"
#include "Runtime/Text.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <algorithm>
#include <cstdio>
#include <vector>

namespace Plan {

using Runtime::concat;
using State::Value;

namespace {

struct StreamRow {
    const Network& network;
    const Stream& stream;
    const ListenerOutcome& listener;
};

const std::string& nameOf(const Network& network, const LinkEnd& end) {
    return network.devices[end.device].name;
}

/// The devices from the talker to the listener.
std::string pathText(const Network& network, const ListenerOutcome& listener) {
    std::string out;
    for (const Hop& hop : listener.path)
        out += nameOf(network, network.links[hop.link].ends[hop.end]) + " -> ";
    return out.empty() ? out : out + network.devices[listener.station].name;
}

std::string latencyText(const StreamRow& row) {
    if (row.listener.path.empty()) return {};
    const Runtime::Duration target = latencyTarget(row.stream.srClass);
    return spanText(row.listener.latency) + (row.listener.latency > target ? " > " + spanText(target) : "");
}

constexpr auto streamColumns = std::to_array<Show::Column<StreamRow>>({
    {"STREAM", "", [](const StreamRow& r) { return r.stream.name; }},
    {"CLASS", "", [](const StreamRow& r) { return std::string{classLetter(r.stream.srClass)}; }},
    {"KBPS", "", [](const StreamRow& r) { return streamKbps(r.stream); }},
    {"LISTENER", "", [](const StreamRow& r) { return r.network.devices[r.listener.station].name; }},
    {"STATE", "",
     [](const StreamRow& r) {
         return r.listener.reserved ? std::string{"reserved"} : std::string{"failed"};
     }},
    {"LATENCY", "", [](const StreamRow& r) { return latencyText(r); }},
    {"PATH", "", [](const StreamRow& r) { return pathText(r.network, r.listener); }},
});

struct LinkRow {
    const Network& network;
    const Link& link;
    int end;
    const LinkOutcome& outcome;
};

std::string speedText(const LinkOutcome& outcome) {
    return State::enumText(Interface::namedSpeed(outcome.megabitsPerSecond));
}

/// "used/allowed", of a bridge's port.
std::string share(const LinkRow& row, std::size_t srClass) {
    if (!row.network.devices[row.link.ends[row.end].device].bridge) return {};
    return concat(row.outcome.usedKbps[srClass], '/', row.outcome.allowedKbps[srClass]);
}

constexpr auto linkColumns = std::to_array<Show::Column<LinkRow>>({
    {"FROM", "", [](const LinkRow& r) { return nameOf(r.network, r.link.ends[r.end]); }},
    {"TO", "", [](const LinkRow& r) { return nameOf(r.network, r.link.ends[1 - r.end]); }},
    {"PORT", "", [](const LinkRow& r) { return r.link.ends[r.end].port; }},
    {"SPEED", "", [](const LinkRow& r) { return speedText(r.outcome); }},
    {"TREE", "",
     [](const LinkRow& r) {
         return std::string{!r.outcome.up ? "down" : r.outcome.forwards ? "forwarding" : "blocking"};
     }},
    {"CLASS-A", "", [](const LinkRow& r) { return share(r, 0); }},
    {"CLASS-B", "", [](const LinkRow& r) { return share(r, 1); }},
    {"FRAMES", "", [](const LinkRow& r) { return r.outcome.frames; }},
    {"OCTETS", "", [](const LinkRow& r) { return r.outcome.octets; }},
    {"LOST", "", [](const LinkRow& r) { return r.outcome.lost; }},
});

std::vector<LinkRow> linkRows(const Network& network, const Outcome& outcome) {
    std::vector<LinkRow> rows;
    for (std::size_t l = 0; l < network.links.size(); ++l) {
        for (int end = 0; end < 2; ++end)
            rows.push_back({network, network.links[l], end, outcome.links[l][static_cast<std::size_t>(end)]});
    }
    return rows;
}

std::string count(std::size_t n, const char* what) { return concat(n, ' ', what, n == 1 ? "" : "s"); }

Value listenerValue(const Network& network, const Stream& stream, const ListenerOutcome& listener) {
    State::Object path;
    for (std::size_t i = 0; i < listener.path.size(); ++i) {
        const Hop& hop = listener.path[i];
        const LinkEnd& end = network.links[hop.link].ends[hop.end];
        path.emplace_back(std::to_string(i + 1), State::Object{{"device", Value{nameOf(network, end)}},
                                                               {"port", textOrNull(end.port)},
                                                               {"latency", spanValue(hop.latency)}});
    }
    State::Object reason;
    const bool failed = !listener.reserved;
    return State::Object{
        {"reserved", Value{listener.reserved}},
        {"latency", spanValue(listener.latency)},
        {"latencyTarget", spanValue(latencyTarget(stream.srClass))},
        {"path", std::move(path)},
        {"device", failed ? Value{network.devices[listener.device].name} : Value{}},
        {"port", textOrNull(listener.port)},
        {"code", Value{listener.verdict.code}},
        {"reason", failed ? Value{reasonText(network, listener)} : Value{}},
        {"verdict", failed ? State::Codec<Show::Verdict>::encode(listener.verdict) : Value{}}};
}

}  // namespace

std::string spanText(Runtime::Duration span) {
    const double s = std::chrono::duration<double>(span).count();
    char text[48];
    if (s >= 1) {
        std::snprintf(text, sizeof text, "%.3f s", s);
    } else if (s >= 1e-3) {
        std::snprintf(text, sizeof text, "%.3f ms", s * 1e3);
    } else {
        std::snprintf(text, sizeof text, "%.1f us", s * 1e6);
    }
    return text;
}

Value numbered(std::vector<Value> values) {
    State::Object all;
    for (Value& value : values) all.emplace_back(std::to_string(all.size() + 1), std::move(value));
    return all;
}

Value textOrNull(const std::string& text) { return text.empty() ? Value{} : Value{text}; }

char classLetter(Msrp::SrClassId srClass) { return srClass == Msrp::SrClassId::SrClassA ? 'A' : 'B'; }

std::uint64_t streamKbps(const Stream& stream) {
    return Msrp::streamBandwidth(stream.srClass, Msrp::recordedFrames(stream.tspec.maxIntervalFrames),
                                 stream.tspec.maxFrameSize);
}

std::string summaryText(const Network& network, const Outcome& outcome) {
    std::size_t asked = 0;
    std::ptrdiff_t reserved = 0;
    for (const StreamOutcome& stream : outcome.streams) {
        asked += stream.listeners.size();
        reserved += std::ranges::count_if(stream.listeners, &ListenerOutcome::reserved);
    }
    std::uint64_t frames = 0;
    std::uint64_t octets = 0;
    for (const auto& link : outcome.links) {
        for (const LinkOutcome& way : link) {
            frames += way.frames;
            octets += way.octets;
        }
    }
    return concat(
        reserved, " of ", count(asked, "reservation"), " of ", count(network.streams.size(), "stream"),
        outcome.quiet ? ", settled after " : ", still changing; last at ", spanText(outcome.lastChange),
        "; the protocol said ", count(frames, "frame"), " (", octets, " octets)");
}

std::string outcomeText(const Network& network, const Outcome& outcome) {
    std::vector<StreamRow> rows;
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        for (const ListenerOutcome& listener : outcome.streams[s].listeners)
            rows.push_back({network, network.streams[s], listener});
    }
    std::string out = Show::Table{
        streamColumns, 1, rows, [](const StreamRow& row) {
            return row.listener.reserved
                       ? Show::Notes{}
                       : Show::Notes{{reasonText(row.network, row.listener), Show::Mood::bad}};
        }}.text();
    out += '\n' + Show::Table{linkColumns, 1, linkRows(network, outcome)}.text();
    out += '\n' + summaryText(network, outcome) + '\n';
    out +=
        "LATENCY is a bound for the whole path, where classes keep their shares, one frame below them "
        "interferes at "
        "each port and talkers space their frames evenly\n";
    return out;
}

Value outcomeValue(const Network& network, const Outcome& outcome) {
    State::Object streams;
    for (std::size_t s = 0; s < network.streams.size(); ++s) {
        const Stream& stream = network.streams[s];
        State::Object listeners;
        for (const ListenerOutcome& listener : outcome.streams[s].listeners)
            listeners.emplace_back(network.devices[listener.station].name,
                                   listenerValue(network, stream, listener));
        streams.emplace_back(
            stream.name,
            State::Object{{"id", Value{State::hexText(stream.id)}},
                          {"stream", Value{Show::streamName(stream.id)}},
                          {"talker", Value{network.devices[stream.talker].name}},
                          {"destination", Value{stream.destination.text()}},
                          {"vlan", Value{std::uint64_t{stream.vlan}}},
                          {"class", Value{std::string{classLetter(stream.srClass)}}},
                          {"maxFrameSize", Value{std::uint64_t{stream.tspec.maxFrameSize}}},
                          {"maxIntervalFrames", Value{std::uint64_t{stream.tspec.maxIntervalFrames}}},
                          {"kbps", Value{streamKbps(stream)}},
                          {"reserved", Value{outcome.streams[s].reserved()}},
                          {"listeners", std::move(listeners)}});
    }
    std::vector<Value> links;
    for (const LinkRow& row : linkRows(network, outcome)) {
        links.emplace_back(State::Object{{"from", Value{nameOf(network, row.link.ends[row.end])}},
                                         {"to", Value{nameOf(network, row.link.ends[1 - row.end])}},
                                         {"port", textOrNull(row.link.ends[row.end].port)},
                                         {"speed", Value{speedText(row.outcome)}},
                                         {"up", Value{row.outcome.up}},
                                         {"forwards", Value{row.outcome.forwards}},
                                         {"usedKbpsA", Value{row.outcome.usedKbps[0]}},
                                         {"allowedKbpsA", Value{row.outcome.allowedKbps[0]}},
                                         {"usedKbpsB", Value{row.outcome.usedKbps[1]}},
                                         {"allowedKbpsB", Value{row.outcome.allowedKbps[1]}},
                                         {"frames", Value{row.outcome.frames}},
                                         {"octets", Value{row.outcome.octets}},
                                         {"lost", Value{row.outcome.lost}}});
    }
    return State::Object{
        {"network", textOrNull(network.title)}, {"at", spanValue(outcome.at)},
        {"settled", Value{outcome.quiet}},      {"lastChange", spanValue(outcome.lastChange)},
        {"streams", std::move(streams)},        {"links", numbered(std::move(links))}};
}

}  // namespace Plan
