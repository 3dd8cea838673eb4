#include "Plan/Outcome.h"

#include "Msrp/bandwidth/Admission.h"
#include "Plan/BridgeRecords.h"
#include "Plan/Latency.h"
#include "Runtime/Text.h"
#include "Show/FailureCodes.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Plan {

using Msrp::SrClassId;
using Runtime::concat;

namespace {

/// How a tree leads to a talker: for each device the link towards it and its own end of that.
struct Towards {
    std::vector<std::size_t> link;  ///< none: `noLink`
    std::vector<int> end;
};
constexpr std::size_t noLink = SIZE_MAX;

class Looker {
public:
    Looker(const World& world, Reasons reasons)
        : world_{world}, network_{world.network()}, all_{reasons == Reasons::told} {
        for (const Device& d : network_.devices) {
            if (all_ && d.bridge) hosts_ += concat(d.address, ' ', d.name, '\n');
        }
        (void)names_.read(hosts_);
        linksOf_.resize(network_.devices.size());
        for (std::size_t l = 0; l < network_.links.size(); ++l) {
            for (const LinkEnd& end : network_.links[l].ends) linksOf_[end.device].push_back(l);
        }
    }

    Outcome look() {
        Outcome out{.at = world_.now(), .lastChange = world_.lastChange()};
        for (std::size_t s = 0; s < network_.streams.size(); ++s) out.streams.push_back(streamOutcome(s));
        if (!all_) return out;
        for (std::size_t l = 0; l < network_.links.size(); ++l)
            out.links.push_back({linkOutcome(l, 0), linkOutcome(l, 1)});
        explainAll(out);
        return out;
    }

private:
    const Towards& towards(std::size_t talker) {
        const auto [at, fresh] = towards_.try_emplace(talker);
        Towards& t = at->second;
        if (!fresh) return t;
        t.link.assign(network_.devices.size(), noLink);
        t.end.assign(network_.devices.size(), 0);
        std::vector<std::size_t> open{talker};
        for (std::size_t i = 0; i < open.size(); ++i) {
            for (const std::size_t l : linksOf_[open[i]]) {
                const auto& ends = network_.links[l].ends;
                if (!world_.forwards(l, 0) || !world_.forwards(l, 1)) continue;
                const int far = ends[0].device == open[i] ? 1 : 0;
                const std::size_t device = ends[far].device;
                if (device == talker || t.link[device] != noLink) continue;
                t.link[device] = l;
                t.end[device] = far;
                // Stations pass nothing on.
                if (network_.devices[device].bridge) open.push_back(device);
            }
        }
        return t;
    }

    StreamOutcome streamOutcome(std::size_t s) {
        StreamOutcome out;
        for (const std::size_t station : world_.listeners(s)) out.listeners.push_back(listener(s, station));
        return out;
    }

    ListenerOutcome listener(std::size_t s, std::size_t station) {
        const Stream& stream = network_.streams[s];
        ListenerOutcome out{.station = station};
        const Towards& way = towards(stream.talker);
        for (std::size_t at = station; at != stream.talker;) {
            const std::size_t l = way.link[at];
            if (l == noLink) break;
            const int far = 1 - way.end[at];
            out.path.push_back({l, far, all_ ? latency(stream, l, far) : Runtime::Duration{}});
            at = network_.links[l].ends[far].device;
        }
        std::ranges::reverse(out.path);
        if (out.path.empty()) {
            out.device = station;
            out.verdict.rule = Show::Rule::noTalker;
            out.verdict.what = "no way";
            out.verdict.why = "no links that forward lead to the talker";
            return out;
        }
        for (const Hop& hop : out.path) out.latency += hop.latency;
        const Station::TalkerEvent* heard = world_.heardTalker(station, stream.id);
        out.reserved = heard != nullptr && heard->state == Msrp::TalkerState::Advertise;
        for (const Hop& hop : out.path) {
            const LinkEnd& at = network_.links[hop.link].ends[hop.end];
            if (network_.devices[at.device].bridge && !carries(at, stream)) out.reserved = false;
        }
        if (!out.reserved && all_) blame(out, stream);
        return out;
    }

    [[nodiscard]] bool carries(const LinkEnd& at, const Stream& stream) const {
        const Sim::Bridge* bridge = world_.bridge(at.device);
        if (bridge == nullptr) return false;
        const auto config = bridge->groupConfig->fdbConfig(VlanId{stream.vlan});
        const auto group = config ? config->ethGroup(stream.destination) : nullptr;
        if (!group) return false;
        const bool* member = group->intf().find(IntfId{at.port});
        return member != nullptr && *member;
    }

    /// kbit/s that a station says, of class A and of class B.
    const std::array<std::uint64_t, 2>& talked(std::size_t station) {
        if (talked_.empty()) {
            talked_.resize(network_.devices.size());
            for (std::size_t s = 0; s < network_.streams.size(); ++s) {
                if (!world_.talks(s)) continue;
                const Stream& one = network_.streams[s];
                talked_[one.talker][one.srClass == SrClassId::SrClassA ? 0 : 1] +=
                    Msrp::streamBandwidth(one.srClass, one.tspec.maxIntervalFrames, one.tspec.maxFrameSize);
            }
        }
        return talked_[station];
    }

    [[nodiscard]] Runtime::Duration latency(const Stream& stream, std::size_t link, int end) {
        const std::size_t device = network_.links[link].ends[end].device;
        LatencyPort port{.megabitsPerSecond = world_.wire(link, end).quality().megabitsPerSecond,
                         .wire = world_.wire(link, end).quality().delay};
        if (const Sim::Bridge* bridge = world_.bridge(device)) {
            const Msrp::AdmissionRequest share =
                shareOf(*bridge, network_.links[link].ends[end].port, port.megabitsPerSecond);
            const bool a = stream.srClass == SrClassId::SrClassA;
            const auto kbps = static_cast<double>(std::max<std::uint64_t>(share.link, 1));
            // Class B waits for what class A has, and shares the rest.
            port.shareA = static_cast<double>(a ? Msrp::allowedForClass(share) : share.allocatedA) / kbps;
            port.shareB = static_cast<double>(Msrp::allowedTotal(share) -
                                              std::min(Msrp::allowedTotal(share), share.allocatedA)) /
                          kbps;
            port.processing = network_.devices[device].processing;
        } else {
            // A talker's port carries what the talker says, and nobody limits it.
            const auto& [a, b] = talked(device);
            const double kbps = port.megabitsPerSecond * 1e3;
            port.shareA = std::min(1.0, static_cast<double>(a) / kbps);
            port.shareB = std::min(1.0, static_cast<double>(b) / kbps);
        }
        constexpr std::uint32_t headers = 14 + 4 + 4;  // addresses and EtherType, tag, check sequence
        return worstLatency(port, stream.srClass, {.own = stream.tspec.maxFrameSize + headers});
    }

    /// Who keeps it back: from the talker on, the first bridge that fails it itself; where none does, the
    /// last one that has it and does not carry it.
    void blame(ListenerOutcome& out, const Stream& stream) const {
        out.device = out.station;
        std::string in;  // the port that the stream comes in by
        for (const Hop& hop : out.path) {
            const Link& link = network_.links[hop.link];
            const LinkEnd& at = link.ends[hop.end];
            const std::string came = std::exchange(in, link.ends[1 - hop.end].port);
            if (!network_.devices[at.device].bridge || carries(at, stream)) continue;
            const Sim::Bridge* bridge = world_.bridge(at.device);
            const auto known =
                bridge != nullptr ? std::as_const(*bridge->status).registeredStreams(stream.id) : nullptr;
            out.device = at.device;
            out.port = known ? at.port : std::string{};
            if (!known) return;
            out.code = Msrp::number(known->talkerFailureCode(IntfId{came}));
            if (out.code != 0) {
                out.port.clear();
                return;
            }
            out.code = Msrp::number(known->talkerFailureCode(IntfId{at.port}));
            if (out.code != 0) return;
        }
    }

    /// Puts the reasons in words, bridge by bridge, since what a bridge knows is large.
    void explainAll(Outcome& outcome) {
        constexpr std::size_t explained = 3;  // in full, of those with the same code at the same port
        std::map<std::size_t, std::vector<std::pair<std::size_t, ListenerOutcome*>>> failed;
        for (std::size_t s = 0; s < outcome.streams.size(); ++s) {
            for (ListenerOutcome& listener : outcome.streams[s].listeners) {
                if (!listener.reserved && !listener.path.empty())
                    failed[listener.device].emplace_back(s, &listener);
            }
        }
        for (auto& [device, listeners] : failed) {
            std::map<std::pair<std::string, std::uint64_t>, std::pair<std::size_t, std::string>> seen;
            std::optional<BridgeRecords> records;
            for (auto& [s, listener] : listeners) {
                auto& [count, first] = seen[{listener->port, listener->code}];
                if (count++ == 0) first = network_.streams[s].name;
                Show::Verdict& verdict = listener->verdict;
                if (count > explained) {
                    verdict.rule = Show::Rule::otherCode;
                    verdict.code = listener->code;
                    verdict.what = listener->code != 0 ? Show::codeText(listener->code) : "not carried";
                    verdict.why = concat("as stream \"", first, "\" there");
                } else if (!world_.isOn(device)) {
                    verdict.what = "switched off";
                } else if (!network_.devices[device].bridge) {
                    verdict.what = "not told of it";
                    verdict.why =
                        "all bridges on the way carry it, and the frames that say so are lost or on their "
                        "way";
                } else {
                    if (!records) records.emplace(*world_.bridge(device), Show::Snapshot::noClock);
                    const Show::Explanation e =
                        records->explain(names_, network_.streams[s].id, listener->port);
                    const bool taken = !listener->port.empty() && !e.ports.empty();
                    verdict = taken ? e.ports.front().second : e.talker;
                }
            }
        }
    }
    [[nodiscard]] LinkOutcome linkOutcome(std::size_t link, int end) const {
        const Wire& wire = world_.wire(link, end);
        LinkOutcome out{.megabitsPerSecond = wire.quality().megabitsPerSecond,
                        .up = world_.carries(link),
                        .forwards = world_.forwards(link, end),
                        .frames = wire.frames(),
                        .octets = wire.octets(),
                        .lost = wire.lost()};
        const LinkEnd& at = network_.links[link].ends[end];
        const Sim::Bridge* bridge = world_.bridge(at.device);
        if (bridge == nullptr) return out;
        Msrp::AdmissionRequest share = shareOf(*bridge, at.port, wire.quality().megabitsPerSecond);
        out.usedKbps = {share.allocatedA, share.allocatedB};
        for (std::size_t c = 0; c < 2; ++c) {
            share.srClass = c == 0 ? SrClassId::SrClassA : SrClassId::SrClassB;
            out.allowedKbps[c] = Msrp::allowedForClass(share);
        }
        return out;
    }

    /// What its classes have and may have, as its agent has it.
    static Msrp::AdmissionRequest shareOf(const Sim::Bridge& bridge, const std::string& port,
                                          std::uint32_t megabitsPerSecond) {
        return {.link = Msrp::linkSpeedKbps(Interface::namedSpeed(megabitsPerSecond)),
                .percentA = bridge.cliConfig->srClassABandwidthPercent(),
                .percentB = bridge.cliConfig->srClassBBandwidthPercent(),
                .allocatedA = bridge.allocated(port, SrClassId::SrClassA),
                .allocatedB = bridge.allocated(port, SrClassId::SrClassB)};
    }

    const World& world_;
    const Network& network_;
    const bool all_;
    std::string hosts_;
    Show::BridgeNames names_;
    std::vector<std::vector<std::size_t>> linksOf_;
    std::map<std::size_t, Towards> towards_;
    std::vector<std::array<std::uint64_t, 2>> talked_;  ///< by device; empty: not asked for yet
};

}  // namespace

bool StreamOutcome::reserved() const { return std::ranges::all_of(listeners, &ListenerOutcome::reserved); }

Outcome look(const World& world, Reasons reasons) { return Looker{world, reasons}.look(); }

std::string reasonText(const Network& network, const ListenerOutcome& listener) {
    const Show::Verdict& v = listener.verdict;
    std::string out = network.devices[listener.device].name;
    if (!listener.port.empty()) out += " port " + listener.port;
    out += ": " + v.what;
    if (v.code != 0) out += concat(" (code ", v.code, ')');
    if (!v.why.empty()) out += ": " + v.why;
    if (!v.mends.empty()) out += "; mend: " + v.mends.front().text;
    return out;
}

}  // namespace Plan
