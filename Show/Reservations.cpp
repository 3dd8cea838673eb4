#include "Show/Reservations.h"

#include "Msrp/bandwidth/Admission.h"
#include "Switch/Interface.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

namespace Show {

using Msrp::U64;
using State::Value;

namespace {

constexpr std::array<std::string_view, 2> classes{"A", "B"};

Value ageValue(double age) { return age < 0 ? Value{} : Value{age}; }
Value waitOrNone(const std::optional<WaitReport>& wait) { return wait ? waitValue(*wait) : Value{}; }
Value textOrNone(const std::string& text) { return text.empty() ? Value{} : Value{text}; }

/// Ports on which MSRP is configured to run.
std::vector<std::string> enabledPorts(const Snapshot& snapshot) {
    std::vector<std::string> all;
    for (const auto& [port, enabled] : membersOf(at(snapshot.record("msrp/config"), {"intfEnable"}))) {
        if (isTrue(enabled)) all.push_back(port);
    }
    return all;
}

/// Ports with the same reason share a line; the reasons come in the order of their first ports.
void noteOthers(Table& table, const StreamReport& stream) {
    std::vector<std::pair<std::string, std::string>> byReason;
    for (const StreamPortReport& port : stream.ports) {
        if (port.carried) continue;
        const auto found =
            std::ranges::find(byReason, port.reason, &std::pair<std::string, std::string>::first);
        if (found == byReason.end()) {
            byReason.emplace_back(port.reason, port.name);
        } else {
            found->second += ", " + port.name;
        }
    }
    for (const auto& [reason, names] : byReason) {
        std::string line = "    not to ";
        table.note(line.append(names).append(": ").append(reason));
    }
}

/// "used/allowed"
Value bandwidth(const Snapshot& snapshot, const std::string& port, std::string_view srClass) {
    const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
    if (status.isNull()) return {};
    const Msrp::AdmissionRequest share = portShare(snapshot, port);
    const bool classA = srClass == "A";
    const U64 used = classA ? share.allocatedA : share.allocatedB;
    const U64 total = Msrp::allowedTotal(share);
    const U64 left = total > share.allocatedA ? total - share.allocatedA : 0;
    const U64 allowed = classA ? share.percentA * share.link / 100 : left;
    return Value{std::to_string(used) + '/' + std::to_string(allowed)};
}

Value linkState(const Snapshot& snapshot, const std::string& port) {
    if (at(snapshot.record("interface/status/eth/intf"), {"intf", port}).isNull()) return "no interface";
    return textOrNone(
        textOf(at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port, "linkStatus"})));
}

/// Who waits at a port, and how that reads.
struct PortWait {
    std::size_t place;
    std::string text;
};

/// By port: streams that want bandwidth there, and streams that were declared there and want an address.
std::map<std::string, std::vector<PortWait>> portWaits(const Snapshot& snapshot) {
    std::map<std::string, std::vector<PortWait>> waits;
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

/// The first of them; `show streams` has them all.
void noteWaits(Table& table, const std::vector<PortWait>& waits) {
    constexpr std::size_t most = 5;
    for (std::size_t i = 0; i < std::min(waits.size(), most); ++i) table.note("    " + waits[i].text);
    if (waits.size() > most) table.note("    and " + std::to_string(waits.size() - most) + " more streams");
}

const State::Object& reservedQueues(const Snapshot& snapshot, const std::string& port) {
    return membersOf(at(snapshot.record("qos/input/config/msrp"), {"intfConfig", port, "txQueueConfig"}));
}

/// Why a port's queues are not shaped, where something is reserved or that was refused; else nothing.
std::string whyNotShaped(const Snapshot& snapshot, const std::string& port) {
    const Value& shaping = at(snapshot.record("linux/capabilities"), {"shaping", port});
    if (textOf(at(shaping, {"shaper"})) == "none" && !reservedQueues(snapshot, port).empty())
        return textOf(at(shaping, {"why"}));
    return textOf(at(snapshot.record("switch/refusals"), {"port", port, "why"}));
}

/// kbit/s by queue, or that they are not shaped.
Value shapedQueues(const Snapshot& snapshot, const std::string& port) {
    if (!whyNotShaped(snapshot, port).empty()) return Value{"none"};
    State::Object queues;
    for (const auto& [queue, config] : reservedQueues(snapshot, port))
        queues.emplace_back(queue, at(config, {"shapeRate"}));
    return queues.empty() ? Value{} : Value{std::move(queues)};
}

U64 sum(const Value& counters) {
    U64 all = 0;
    for (const auto& [name, count] : membersOf(counters)) all += numberOf(count);
    return all;
}

/// One row for each name with a count in either direction.
void countBoth(Table& table, const std::string& port, const std::string& prefix, const Value& rx,
               const Value& tx) {
    std::vector<std::string> names;
    for (const Value* side : {&rx, &tx}) {
        for (const auto& [name, count] : membersOf(*side)) {
            if (numberOf(count) != 0 && std::ranges::find(names, name) == names.end()) names.push_back(name);
        }
    }
    for (const std::string& name : names)
        table.row({port, prefix + name, Value{numberOf(at(rx, {name}))}, Value{numberOf(at(tx, {name}))}});
}

}  // namespace

std::string streamsText(const Snapshot& snapshot) {
    Table table{{{"STREAM", ""},
                 {"ID", ""},
                 {"FROM", ""},
                 {"DESTINATION", ""},
                 {"VLAN", ""},
                 {"CLASS", ""},
                 {"KBPS", ""},
                 {"AGE", ""}},
                0};
    for (const StreamReport& stream : streamReports(snapshot)) {
        table.row({streamName(stream.id), State::hexText(stream.id), textOrNone(stream.from),
                   stream.destination, Value{stream.vlan}, stream.srClass, Value{stream.kbps},
                   ageText(stream.age)});
        if (!stream.failure.empty()) table.note("    talker failed: " + stream.failure);
        std::string carriers;
        for (const StreamPortReport& port : stream.ports) {
            if (!port.carried) continue;
            carriers += (carriers.empty() ? "" : ", ") + port.name + " (" + ageText(port.age) + ')';
        }
        if (!carriers.empty()) table.note("    to " + carriers);
        noteOthers(table, stream);
    }
    return table.empty() ? "no streams\n" : table.text();
}

Value streamValue(const StreamReport& stream) {
    State::Object ports;
    for (const StreamPortReport& port : stream.ports) {
        ports.emplace_back(port.name, State::Object{{"carried", port.carried},
                                                    {"reason", textOrNone(port.reason)},
                                                    {"talker", textOrNone(port.talker)},
                                                    {"listener", textOrNone(port.listener)},
                                                    {"age", ageValue(port.age)},
                                                    {"waiting", waitOrNone(port.wait)}});
    }
    return State::Object{{"stream", streamName(stream.id)},
                         {"from", textOrNone(stream.from)},
                         {"age", ageValue(stream.age)},
                         {"talker", textOrNone(stream.talker)},
                         {"failure", textOrNone(stream.failure)},
                         {"waiting", waitOrNone(stream.wait)},
                         {"ports", std::move(ports)},
                         {"record", stream.record}};
}

Value streamsValue(const Snapshot& snapshot) {
    State::Object all;
    for (const StreamReport& stream : streamReports(snapshot))
        all.emplace_back(State::hexText(stream.id), streamValue(stream));
    return all;
}

std::string streamText(const StreamReport& stream) {
    const auto number = [&](std::string_view field) {
        return std::to_string(numberOf(at(stream.record, {field})));
    };
    std::string talker = "none";
    if (!stream.from.empty()) {
        talker = stream.from + ", " + (stream.talker.empty() ? "nothing declared" : stream.talker) +
                 " since " + ageText(stream.age);
    }
    if (!stream.failure.empty()) talker += ", " + stream.failure;
    std::string out = "stream       " + streamName(stream.id) + " (" + State::hexText(stream.id) + ")\n";
    out += "talker       " + talker + '\n';
    out += "destination  " + stream.destination + ", VLAN " + std::to_string(stream.vlan) + '\n';
    out += "class        " + stream.srClass + ", priority " + number("dataFramePriority") + ", rank " +
           number("rank") + '\n';
    out += "bandwidth    " + std::to_string(stream.kbps) + " kbps (" + number("maxIntervalFrames") +
           " frames of at most " + number("maxFrameSize") + " octets in an interval)\n";
    out += "latency      " + number("accumulatedLatency") + " ns up to here\n";

    Table table{
        {{"PORT", ""}, {"CARRIED", ""}, {"TALKER", ""}, {"LISTENER", ""}, {"AGE", ""}, {"WHY NOT", ""}}, 0};
    for (const StreamPortReport& port : stream.ports) {
        table.row({port.name, port.carried, port.talker, port.listener, ageText(port.age),
                   port.carried ? "" : port.reason});
    }
    return table.empty() ? out : out + table.text();
}

Table ports(const Snapshot& snapshot) {
    Table table{{{"PORT", "port"},
                 {"LINK", "link"},
                 {"SPEED", "speed"},
                 {"STATE", "portState"},
                 {"CLASS A", "srClassA"},
                 {"A KBPS", "srClassABandwidth"},
                 {"CLASS B", "srClassB"},
                 {"B KBPS", "srClassBBandwidth"},
                 {"SHAPED KBPS", "shaped"},
                 {"WAITING", "waiting"},
                 {"RX PDUS", "rxPdus"},
                 {"TX PDUS", "txPdus"},
                 {"REFUSED", "refusedJoins"},
                 {"MALFORMED", "malformed"},
                 {"DROPPED", "droppedRegistrations"}},
                1};
    auto waiting = portWaits(snapshot);
    for (const std::string& port : enabledPorts(snapshot)) {
        const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
        const Value& mrp = at(snapshot.record("mrp/status"), {"intf", port});
        const std::vector<PortWait>& waits = waiting[port];
        table.row({port, linkState(snapshot, port),
                   at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port, "speedEnum"}),
                   at(status, {"portState"}), at(status, {"srClassState", "SrClassA"}),
                   bandwidth(snapshot, port, "A"), at(status, {"srClassState", "SrClassB"}),
                   bandwidth(snapshot, port, "B"), shapedQueues(snapshot, port),
                   status.isNull() ? Value{} : Value{U64{waits.size()}}, at(mrp, {"rxPdus"}),
                   at(mrp, {"txPdus"}), at(mrp, {"refusedJoins"}),
                   mrp.isNull() ? Value{} : Value{sum(at(mrp, {"malformed"}))},
                   at(mrp, {"droppedRegistrations"})});
        if (const std::string why = whyNotShaped(snapshot, port); !why.empty())
            table.note("    queues are not shaped: " + why);
        noteWaits(table, waits);
    }
    return table;
}

Table domain(const Snapshot& snapshot) {
    Table table{{{"PORT", "port"},
                 {"CLASS", "class"},
                 {"STATE", "state"},
                 {"PRIORITY", "priority"},
                 {"SR PVID", "srPvid"}},
                2};
    const Value& config = snapshot.record("msrp/cliConfig");
    for (const std::string& port : enabledPorts(snapshot)) {
        const U64 own = numberOf(at(config, {"srPvid", port}));
        for (const std::string_view srClass : classes) {
            const std::string name = "srClass" + std::string{srClass};
            table.row({port, Value{srClass},
                       at(snapshot.record("msrp/status"),
                          {"intfStatus", port, "srClassState", "SrClass" + std::string{srClass}}),
                       at(config, {name + "Priority"}),
                       own != 0 ? Value{own} : at(config, {"defaultSrPvid"})});
        }
    }
    return table;
}

Table counters(const Snapshot& snapshot) {
    Table table{{{"PORT", "port"}, {"COUNTER", "counter"}, {"RX", "rx"}, {"TX", "tx"}}, 2};
    for (const std::string& port : enabledPorts(snapshot)) {
        const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
        const Value& mrp = at(snapshot.record("mrp/status"), {"intf", port});
        const auto one = [&](std::string_view name, std::string_view field) {
            return State::Object{{std::string{name}, at(mrp, {field})}};
        };
        countBoth(table, port, "", at(status, {"rxCounters"}), at(status, {"txCounters"}));
        countBoth(table, port, "", one("PDUs", "rxPdus"), one("PDUs", "txPdus"));
        countBoth(table, port, "event ", at(mrp, {"rxEvents"}), at(mrp, {"txEvents"}));
        countBoth(table, port, "malformed: ", at(mrp, {"malformed"}), {});
        countBoth(table, port, "", one("refused joins", "refusedJoins"), {});
        countBoth(table, port, "", one("values out of range", "rangeErrors"), {});
        countBoth(table, port, "", one("registrations over the limit", "droppedRegistrations"), {});
        countBoth(table, port, "", one("PDUs dropped in a flood", "droppedPdus"), {});
        const Value& socket = at(snapshot.record("linux/packets"), {"intf", port});
        countBoth(table, port, "",
                  State::Object{{"frames the kernel dropped", at(socket, {"receiveDropped"})}},
                  State::Object{{"frames the kernel dropped", at(socket, {"sendDropped"})}});
    }
    return table;
}

std::string logText(const Snapshot& snapshot) {
    Table table{{{"AGE", ""}, {"LINE", ""}}, 0};
    for (const auto& [number, line] : membersOf(at(snapshot.record("log"), {"line"}))) {
        const double time = State::Codec<double>::decode(at(line, {"time"})).value_or(snapshot.now);
        table.row({ageText(snapshot.now - time), at(line, {"text"})});
    }
    return table.text();
}

}  // namespace Show
