#include "Msrp/bandwidth/Admission.h"
#include "Show/Capabilities.h"
#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Show/Views.h"
#include "Switch/Interface.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

/// Who waits at a port, and how that reads.
struct PortWait {
    std::size_t place;
    std::string text;
};
using PortWaits = std::map<std::string, std::vector<PortWait>>;

struct PortRow {
    const Snapshot& snapshot;
    std::string port;
    std::vector<PortWait> waits;
    const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
    const Value& link = at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port});
    const Value& mrp = at(snapshot.record("mrp/status"), {"intf", port});
};

/// "used/allowed"
std::optional<std::string> bandwidth(const PortRow& row, bool classA) {
    if (row.status.isNull()) return {};
    Msrp::AdmissionRequest share = portShare(row.snapshot, row.port);
    share.srClass = classA ? Msrp::SrClassId::SrClassA : Msrp::SrClassId::SrClassB;
    const U64 used = classA ? share.allocatedA : share.allocatedB;
    return std::to_string(used) + '/' + std::to_string(Msrp::allowedForClass(share));
}

std::optional<std::string> linkState(const PortRow& row) {
    if (at(row.snapshot.record("interface/status/eth/intf"), {"intf", row.port}).isNull())
        return "no interface";
    return textOrNone(textOf(at(row.link, {"linkStatus"})));
}

/// Nothing where nobody is asked about common time.
std::optional<std::string> timeState(const PortRow& row) {
    const Value& time = row.snapshot.record("switch/time");
    if (!isTrue(at(time, {"asked"}))) return {};
    const Value& port = at(time, {"port", row.port});
    return port.isNull() ? "unknown" : textOf(at(port, {"state"}));
}

/// By port: streams that want bandwidth there, and streams that were declared there and want an address.
PortWaits portWaits(const Snapshot& snapshot) {
    PortWaits waits;
    for (const StreamReport& stream : streamReports(snapshot)) {
        const auto add = [&](const std::string& port, const char* what, const WaitReport& wait) {
            waits[port].push_back({wait.place, streamName(stream.id) + " wants " + what + waitText(wait)});
        };
        if (stream.wait) add(stream.from, "its address", *stream.wait);
        for (const StreamPortReport& port : stream.ports) {
            if (port.wait) add(port.name, "bandwidth", *port.wait);
        }
    }
    for (auto& [port, all] : waits) {
        // Those without a place come last.
        std::ranges::stable_sort(all, {}, [](const PortWait& wait) { return wait.place - 1; });
    }
    return waits;
}

/// kbit/s by queue.
using Queues = std::vector<std::pair<std::string, U64>>;
Queues reservedQueues(const PortRow& row) {
    Queues queues;
    for (const auto& [queue, config] : membersOf(
             at(row.snapshot.record("qos/input/config/msrp"), {"intfConfig", row.port, "txQueueConfig"})))
        queues.emplace_back(queue, numberOf(at(config, {"shapeRate"})));
    return queues;
}

/// Why a port's queues are not shaped, where something is reserved or that was refused; else nothing.
std::string whyNotShaped(const PortRow& row) {
    const Value& shaping = at(row.snapshot.record("linux/capabilities"), {"shaping", row.port});
    if (textOf(at(shaping, {"shaper"})) == "none" && !reservedQueues(row).empty())
        return textOf(at(shaping, {"why"}));
    return textOf(at(row.snapshot.record("switch/refusals"), {"port", row.port, "why"}));
}

Queues shapedQueues(const PortRow& row) { return whyNotShaped(row).empty() ? reservedQueues(row) : Queues{}; }

std::string shapedText(const PortRow& row) {
    return whyNotShaped(row).empty() ? cellText(State::Codec<Queues>::encode(reservedQueues(row))) : "none";
}

std::optional<U64> mrpCounter(const PortRow& row, std::string_view name) {
    return known<U64>(at(row.mrp, {name}));
}

const Column<PortRow> portColumns[]{
    {"PORT", "port", [](const auto& r) { return r.port; }},
    {"LINK", "link", [](const auto& r) { return linkState(r); }, cellText, wordMood},
    {"SPEED", "speed", [](const auto& r) { return known<Interface::Speed>(at(r.link, {"speedEnum"})); }},
    {"TIME", "time", [](const auto& r) { return timeState(r); }, cellText, wordMood},
    {"STATE", "portState",
     [](const auto& r) { return known<Msrp::MsrpPortState>(at(r.status, {"portState"})); }, cellText,
     wordMood},
    {"CLASS A", "srClassA",
     [](const auto& r) {
         return known<Msrp::SrClassState>(at(r.status, {"srClassState", "SrClassA"}));
     },
     cellText, wordMood},
    {"A KBPS", "srClassABandwidth", [](const auto& r) { return bandwidth(r, true); }},
    {"CLASS B", "srClassB",
     [](const auto& r) {
         return known<Msrp::SrClassState>(at(r.status, {"srClassState", "SrClassB"}));
     },
     cellText, wordMood},
    {"B KBPS", "srClassBBandwidth", [](const auto& r) { return bandwidth(r, false); }},
    {"SHAPED KBPS", "", [](const auto& r) { return shapedText(r); }},
    {"shaped", [](const auto& r) { return shapedQueues(r); }},
    {"notShaped", [](const auto& r) { return textOrNone(whyNotShaped(r)); }},
    {"WAITING", "waiting",
     [](const auto& r) { return r.status.isNull() ? std::nullopt : std::optional{r.waits.size()}; }},
    {"RX PDUS", "rxPdus", [](const auto& r) { return mrpCounter(r, "rxPdus"); }},
    {"TX PDUS", "txPdus", [](const auto& r) { return mrpCounter(r, "txPdus"); }},
    {"REFUSED", "refusedJoins", [](const auto& r) { return mrpCounter(r, "refusedJoins"); }},
    {"MALFORMED", "malformed",
     [](const auto& r) {
         return r.mrp.isNull() ? std::nullopt : std::optional{sumOf(at(r.mrp, {"malformed"}))};
     }},
    {"DROPPED", "droppedRegistrations", [](const auto& r) { return mrpCounter(r, "droppedRegistrations"); }},
};

/// Why its queues are not shaped, and the first of those who wait; `show streams` has them all.
Notes notes(const PortRow& row) {
    constexpr std::size_t most = 5;
    Notes out;
    if (const std::string why = whyNotShaped(row); !why.empty())
        out.push_back({"queues are not shaped: " + why, Mood::bad});
    for (std::size_t i = 0; i < std::min(row.waits.size(), most); ++i)
        out.push_back({row.waits[i].text, Mood::waits});
    if (row.waits.size() > most)
        out.push_back({"and " + std::to_string(row.waits.size() - most) + " more streams", Mood::waits});
    return out;
}

Table portTable(const Snapshot& snapshot) {
    PortWaits waits = portWaits(snapshot);
    std::vector<PortRow> rows;
    for (const std::string& port : enabledPorts(snapshot))
        rows.push_back({.snapshot = snapshot, .port = port, .waits = std::move(waits[port])});
    return {portColumns, 1, rows, notes};
}

struct DomainRow {
    const Snapshot& snapshot;
    std::string port;
    std::string srClass;  ///< "A" or "B"
    const Value& config = snapshot.record("msrp/cliConfig");
};

const Column<DomainRow> domainColumns[]{
    {"PORT", "port", [](const auto& r) { return r.port; }},
    {"CLASS", "class", [](const auto& r) { return r.srClass; }},
    {"STATE", "state",
     [](const auto& r) {
         return known<Msrp::SrClassState>(at(r.snapshot.record("msrp/status"),
                                             {"intfStatus", r.port, "srClassState", "SrClass" + r.srClass}));
     },
     cellText, wordMood},
    {"PRIORITY", "priority",
     [](const auto& r) { return known<Msrp::U8>(at(r.config, {"srClass" + r.srClass + "Priority"})); }},
    {"SR PVID", "srPvid",
     [](const auto& r) {
         const Value& own = at(r.config, {"srPvid", r.port});
         return known<Msrp::U16>(numberOf(own) != 0 ? own : at(r.config, {"defaultSrPvid"}));
     }},
};

Table domainTable(const Snapshot& snapshot) {
    std::vector<DomainRow> rows;
    for (const std::string& port : enabledPorts(snapshot)) {
        for (const char* srClass : {"A", "B"})
            rows.push_back({.snapshot = snapshot, .port = port, .srClass = srClass});
    }
    return {domainColumns, 2, rows};
}

}  // namespace

const View& ports() {
    // What `streams` looks at, since it tells who waits, and the port's own.
    static const View view = [] {
        View made{streams().records,
                  [](const Snapshot& s, const Page& page) { return portTable(s).text(page) + floodText(s); },
                  [](const Snapshot& s) { return portTable(s).value(); },
                  [] { return tableSchema(portColumns, 1); }};
        for (const char* path : {"mrp/status", "interface/status/eth/intf", "qos/input/config/msrp",
                                 "linux/capabilities", "switch/time"})
            made.records.emplace_back(path);
        return made;
    }();
    return view;
}

const View& domain() {
    static const View view{{"msrp/config", "msrp/cliConfig", "msrp/status"},
                           [](const Snapshot& s, const Page& page) { return domainTable(s).text(page); },
                           [](const Snapshot& s) { return domainTable(s).value(); },
                           [] { return tableSchema(domainColumns, 2); }};
    return view;
}

}  // namespace Show
