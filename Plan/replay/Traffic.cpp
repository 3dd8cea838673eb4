#include "Plan/replay/Traffic.h"

#include "Runtime/BigEndian.h"
#include "Runtime/Text.h"
#include "Switch/IntfId.h"

#include <algorithm>

namespace Plan {

using Pcapng::Direction;
using Runtime::concat;

namespace {

constexpr std::size_t addressLength = 6;
constexpr std::uint64_t msrpAddress = 0x01'80'c2'00'00'0e;
constexpr std::uint64_t msrpType = 0x22ea;

/// Where the MRPDU begins in an MSRP frame; 0 for any other frame.
std::size_t pduAt(std::span<const std::uint8_t> octets, bool& tagged) {
    std::size_t at = 2 * addressLength;
    if (octets.size() < at + 2 || Runtime::bigEndian(octets.first(addressLength)) != msrpAddress) return 0;
    // Two tags at most.
    for (int tags = 0; tags <= 2; ++tags) {
        if (octets.size() < at + 2) return 0;
        const std::uint64_t type = Runtime::bigEndian(octets.subspan(at, 2));
        if (type == msrpType) {
            tagged = tags > 0;
            return at + 2;
        }
        if (type != 0x8100 && type != 0x88a8) return 0;
        at += 4;
    }
    return 0;
}

/// The bridge's own among the addresses from which an interface has heard something; empty and a problem
/// where that is not clear.
std::set<EthAddr> ownAmong(const std::set<EthAddr>& sources, const std::set<EthAddr>& bridge,
                           const std::string& port, std::string& problem) {
    std::set<EthAddr> own;
    std::ranges::set_intersection(sources, bridge, std::inserter(own, own.end()));
    if (!own.empty() || sources.empty()) return own;
    for (const EthAddr& source : sources) {
        const auto near = [&](const EthAddr& b) { return b.number() >> 8 == source.number() >> 8; };
        if (std::ranges::any_of(bridge, near)) own.insert(source);
    }
    if (own.size() == 1 || sources.size() == 1) return own;
    problem = "the capture does not tell which frames the bridge sent on " + port + ", and none of";
    std::size_t left = 8;
    for (const EthAddr& source : sources) {
        if (left-- == 0) break;
        problem += ' ' + source.text();
    }
    problem += " is known as its own: name its port's address with --bridge ADDRESS";
    return {};
}

}  // namespace

void TrafficReader::read(const std::string& name, std::span<const std::uint8_t> file) {
    portOf_.clear();
    Capture capture =
        readCapture(file, [&](const Capture& so, const CapturedFrame& frame) { take(so, frame); });
    before_ += capture.interfaces.size();
    out_.files.push_back({name, file.size(), std::move(capture)});
}

void TrafficReader::take(const Capture& capture, const CapturedFrame& frame) {
    out_.missing += frame.missing;
    bool tagged = false;
    const std::size_t at = capture.interfaces[frame.interface].linkType == Pcapng::linkTypeEthernet
                               ? pduAt(frame.octets, tagged)
                               : 0;
    if (at == 0) {
        ++out_.others;
        return;
    }
    portOf_.resize(capture.interfaces.size(), SIZE_MAX);
    std::size_t& port = portOf_[frame.interface];
    if (port == SIZE_MAX) port = portOf(capture, frame.interface);
    if (port == SIZE_MAX) return;
    out_.tagged += tagged ? 1 : 0;
    out_.cut += frame.octets.size() < frame.onWire ? 1 : 0;
    const EthAddr source =
        EthAddr::fromNumber(Runtime::bigEndian(frame.octets.subspan(addressLength, addressLength)));
    // A group of stations on one port is told apart by the first few of them.
    constexpr std::size_t mostSources = 1024;
    if (frame.direction == Direction::unknown && sources_[port].size() < mostSources)
        sources_[port].insert(source);
    found_.push_back({{.time = frame.time,
                       .port = port,
                       .onWire = frame.onWire,
                       .octets = frame.octets,
                       .pdu = frame.octets.subspan(at)},
                      frame.direction,
                      source});
}

std::size_t TrafficReader::portOf(const Capture& capture, std::size_t interface) {
    const std::string& given = capture.interfaces[interface].name;
    const std::string number = std::to_string(before_ + interface);
    auto named = given.empty() ? names_.end() : names_.find(given);
    if (named == names_.end()) named = names_.find(number);
    std::string name = named != names_.end() ? named->second : given;
    if (!IntfId::validName(name)) {
        name = "port" + number;
        out_.notes.push_back(concat("interface ", number,
                                    given.empty() ? " has no name" : " \"" + given + '"',
                                    given.empty() ? "" : " has a name that no port can have", ": it is ",
                                    name, " here (--port NAME=", number, " tells another)"));
    }
    const auto at = std::ranges::find(out_.ports, name);
    if (at != out_.ports.end()) return static_cast<std::size_t>(at - out_.ports.begin());
    if (out_.ports.size() == mostReplayPorts) {
        problem_ = concat("MSRP frames of more than ", mostReplayPorts, " ports");
        return SIZE_MAX;
    }
    out_.ports.push_back(std::move(name));
    sources_.emplace_back();
    return out_.ports.size() - 1;
}

Traffic TrafficReader::traffic(const std::set<EthAddr>& bridge, std::string& problem) {
    std::set<EthAddr> known = bridge;
    for (const Found& found : found_) {
        if (found.direction == Direction::outbound) known.insert(found.source);
    }
    problem = problem_;
    std::vector<std::set<EthAddr>> own(out_.ports.size());
    for (std::size_t p = 0; p < own.size() && problem.empty(); ++p)
        own[p] = ownAmong(sources_[p], known, out_.ports[p], problem);
    for (Found& found : found_) {
        found.frame.sent = found.direction == Direction::unknown
                               ? own[found.frame.port].contains(found.source)
                               : found.direction == Direction::outbound;
        out_.frames.push_back(found.frame);
    }
    found_ = {};
    // Captures of several ports need not agree on the order of what happened at once.
    std::ranges::stable_sort(out_.frames, {}, &TrafficFrame::time);
    for (std::size_t i = 1; i < out_.frames.size(); ++i) {
        const auto count = [&](std::size_t frame) {
            return static_cast<std::uint64_t>(out_.frames[frame].time.time_since_epoch().count());
        };
        const std::uint64_t gap = count(i) - count(i - 1);
        const bool longer = gap > static_cast<std::uint64_t>(longestSilence.count());
        out_.shortened += longer ? 1 : 0;
        out_.frames[i].elapsed =
            out_.frames[i - 1].elapsed +
            (longer ? longestSilence : Runtime::Duration{static_cast<std::int64_t>(gap)});
    }
    return std::move(out_);
}

}  // namespace Plan
