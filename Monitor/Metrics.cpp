#include "Monitor/Metrics.h"

#include "Monitor/MetricText.h"
#include "Mrp/Events.h"
#include "Msrp/bandwidth/Admission.h"
#include "Msrp/types/Census.h"
#include "Show/PortFacts.h"
#include "Show/StreamReport.h"
#include "Show/WaitReport.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <unordered_map>

namespace Monitor {

using Msrp::U64;
using Show::at;
using Show::Snapshot;
using State::Value;
using Kind = MetricText::Kind;

namespace {

/// Octets a second of a kbit/s.
constexpr double octets = 1000.0 / 8;

/// Only what does not grow with the number of streams.
const std::vector<Wanted>& fewRecords() {
    static const std::vector<Wanted> records{{"process"},
                                             {"msrp/census"},
                                             {"msrp/config"},
                                             {"msrp/cliConfig"},
                                             {"msrp/status", "msrpEnabled"},
                                             {"msrp/status", "intfStatus"},
                                             {"mrp/status"},
                                             {"mvrp/mrp/status"},
                                             {"interface/status/eth/phy/all"},
                                             {"linux/packets"},
                                             {"linux/capabilities"},
                                             {"linux/fence"},
                                             {"linux/groups", "wanted"},
                                             {"linux/groups", "programmed"},
                                             {"linux/groups", "missing"},
                                             {"linux/groups", "tableUsed"},
                                             {"linux/groups", "tableSize"},
                                             {"linux/groups", "flooded"},
                                             {"linux/traffic", "problem"},
                                             {"switch/refusals", "port"},
                                             {"switch/time"}};
    return records;
}

Value saysSomething(const Value& text) { return Value{!Show::textOf(text).empty()}; }

/// One family about every port.
struct PortFamily {
    std::string_view name;
    Kind kind;
    std::string_view help;
    Value (*value)(const Snapshot& snapshot, const std::string& port);
};

Value ofStatus(const Snapshot& s, const std::string& port, std::string_view field) {
    return at(s.record("msrp/status"), {"intfStatus", port, field});
}
/// Null where nothing is known.
Value isValue(const Value& value, std::string_view wanted) {
    return value.isNull() ? Value{} : Value{Show::textOf(value) == wanted};
}

constexpr PortFamily portFamilies[]{
    {"msrp_port_link_up", Kind::gauge, "Whether the link is up.",
     [](const Snapshot& s, const std::string& port) {
         return isValue(ofStatus(s, port, "linkStatus"), "up");
     }},
    {"msrp_port_forwarding", Kind::gauge, "Whether the spanning tree lets the port forward.",
     [](const Snapshot& s, const std::string& port) {
         return isValue(ofStatus(s, port, "portState"), "Forwarding");
     }},
    {"msrp_port_speed_bytes_per_second", Kind::gauge, "Speed of the link under which streams are admitted.",
     [](const Snapshot& s, const std::string& port) {
         return Value{static_cast<double>(Show::portShare(s, port).link) * octets};
     }},
    {"msrp_port_queues_refused", Kind::gauge,
     "Whether the port cannot give the classes their bandwidth, so that its reservations fail.",
     [](const Snapshot& s, const std::string& port) {
         return Value{!at(s.record("switch/refusals"), {"port", port}).isNull()};
     }},
    {"msrp_port_fence_broken", Kind::gauge,
     "Whether frames from outside the domain may get into the queues of the classes.",
     [](const Snapshot& s, const std::string& port) {
         const Value& fence = at(s.record("linux/fence"), {"port", port, "problem"});
         return fence.isNull() ? Value{} : saysSomething(fence);
     }},
    {"msrp_port_time_capable", Kind::gauge,
     "Whether the port keeps common time with its neighbour; only where a ptp4l is asked.",
     [](const Snapshot& s, const std::string& port) {
         const Value& time = s.record("switch/time");
         if (!Show::isTrue(at(time, {"asked"}))) return Value{};
         return Value{Show::isTrue(at(time, {"port", port, "capable"}))};
     }},
};

/// A counter of each engine's ports.
struct EngineCounter {
    std::string_view name;
    std::string_view help;
    std::string_view field;
};
constexpr EngineCounter engineCounters[]{
    {"msrp_port_pdus_received_total", "Protocol data units that were received.", "rxPdus"},
    {"msrp_port_pdus_sent_total", "Protocol data units that were sent.", "txPdus"},
    {"msrp_port_pdus_dropped_total", "Protocol data units that came faster than they could be worked off.",
     "droppedPdus"},
    {"msrp_port_joins_refused_total", "Registrations that were refused.", "refusedJoins"},
    {"msrp_port_registrations_dropped_total", "Registrations beyond what one port may register.",
     "droppedRegistrations"},
    {"msrp_port_values_out_of_range_total", "Registrations with a value that cannot be.", "rangeErrors"},
};
/// The same by kind of event.
struct EventCounter {
    std::string_view name;
    std::string_view help;
    std::string_view field;
    std::string_view label;
    std::span<const std::string_view> kinds;
};
template <class Names>
constexpr auto plainNames(const Names& names) {
    std::array<std::string_view, std::tuple_size_v<Names>> plain{};
    for (std::size_t i = 0; i < plain.size(); ++i) plain[i] = names[i].name;
    return plain;
}
constexpr auto events = plainNames(Mrp::eventNames);
constexpr auto reasons = plainNames(Mrp::malformedNames);
constexpr EventCounter eventCounters[]{
    {"msrp_port_events_received_total", "Attribute events that were received.", "rxEvents", "event", events},
    {"msrp_port_events_sent_total", "Attribute events that were sent.", "txEvents", "event", events},
    {"msrp_port_malformed_total", "Parts of received protocol data units that were discarded as malformed.",
     "malformed", "reason", reasons},
};
constexpr std::array<std::pair<std::string_view, std::string_view>, 2> engines{
    {{"msrp", "mrp/status"}, {"mvrp", "mvrp/mrp/status"}}};

class Writer {
public:
    Writer(const Snapshot& snapshot, std::size_t streams)
        : s_{snapshot}, streams_{streams}, ports_{Show::enabledPorts(snapshot)} {}

    std::string all() {
        process();
        loop();
        census();
        ports();
        declarations();
        engine();
        packets();
        kernel();
        if (streams_ != 0) streams();
        return text_.take();
    }

private:
    void one(std::string_view name, Kind kind, std::string_view help, const Value& value) {
        text_.family(name, kind, help);
        text_.sample({}, value);
    }

    void process() {
        const Value& process = s_.record("process");
        text_.family("msrp_build_info", Kind::gauge, "1, with the version of the daemon.");
        text_.sample({{"version", Show::textOf(at(process, {"version"}))}}, Value{true});
        one("msrp_process_start_time_seconds", Kind::gauge, "When the daemon started, seconds since 1970.",
            at(process, {"startTime"}));
        one("msrp_process_cpu_seconds_total", Kind::counter, "Processor time that the daemon has used.",
            at(process, {"cpuSeconds"}));
        one("msrp_process_peak_memory_bytes", Kind::gauge, "Most memory that the daemon has had at once.",
            at(process, {"peakMemory"}));
        one("msrp_counters_cleared_timestamp_seconds", Kind::gauge,
            "When an operator last set the counters to zero, seconds since 1970; 0: never.",
            at(process, {"countersCleared"}));
        one("msrp_enabled", Kind::gauge, "Whether the protocol runs on any port.",
            at(s_.record("msrp/status"), {"msrpEnabled"}));
    }

    void loop() {
        const Value& late = at(s_.record("process"), {"late"});
        const Value& turns = at(s_.record("process"), {"turns"});
        text_.family("msrp_loop_late_seconds", Kind::histogram,
                     "How long after its time the daemon came to the first thing that was due.");
        text_.delays(late);
        text_.family("msrp_loop_turn_seconds", Kind::histogram,
                     "How long the turns of the daemon's loop took, for which all else waited.");
        text_.delays(turns);
        one("msrp_loop_late_longest_seconds", Kind::gauge,
            "The longest of the delays, since the start or since counters were cleared.",
            at(late, {"longest"}));
        one("msrp_loop_turn_longest_seconds", Kind::gauge,
            "The longest of the turns, since the start or since counters were cleared.",
            at(turns, {"longest"}));
    }

    void census() {
        const Value& census = s_.record("msrp/census");
        text_.family("msrp_streams", Kind::gauge, "Streams by how they stand.");
        for (const auto& standing : Msrp::streamStandingNames)
            text_.sample({{"state", standing.name}}, at(census, {"streams", standing.name}));
        text_.family(
            "msrp_stream_failures", Kind::gauge,
            "Streams of which a failure code is said on a port at least; code 0 stands for unknown ones.");
        for (const auto& code : Msrp::talkerFailureCodeNames) {
            const std::string number = std::to_string(Msrp::number(code.value));
            const std::string_view reason = number == "0" ? "unknown" : code.name;
            text_.sample({{"code", number}, {"reason", reason}}, at(census, {"failure", number}));
        }
    }

    void ports() {
        for (const PortFamily& family : portFamilies) {
            text_.family(family.name, family.kind, family.help);
            for (const std::string& port : ports_) text_.sample({{"port", port}}, family.value(s_, port));
        }
        text_.family("msrp_port_shaper_info", Kind::gauge,
                     "1, with the way in which the port's queues are shaped.");
        for (const auto& [port, shaping] : Show::membersOf(at(s_.record("linux/capabilities"), {"shaping"})))
            text_.sample({{"port", port}, {"shaper", Show::textOf(at(shaping, {"shaper"}))}}, Value{true});
        eachClass(
            "msrp_port_class_state",
            "What the port is to the class: 0 not supported, 1 waiting for the peer, 2 boundary, 3 core.",
            [this](const std::string& port, Msrp::SrClassId srClass) {
                const auto state = State::Codec<Msrp::SrClassState>::decode(
                    at(s_.record("msrp/status"),
                       {"intfStatus", port, "srClassState", State::enumText(srClass)}));
                return state ? Value{U64{Msrp::number(*state)}} : Value{};
            });
        eachClass("msrp_port_allocated_bytes_per_second", "Bandwidth that streams have reserved.",
                  [this](const std::string& port, Msrp::SrClassId srClass) {
                      const Msrp::AdmissionRequest share = Show::portShare(s_, port);
                      const bool classA = srClass == Msrp::SrClassId::SrClassA;
                      return inOctets(classA ? share.allocatedA : share.allocatedB);
                  });
        eachClass("msrp_port_allowed_bytes_per_second",
                  "Bandwidth that streams may reserve; class B has what class A leaves of the joint share.",
                  [this](const std::string& port, Msrp::SrClassId srClass) {
                      Msrp::AdmissionRequest share = Show::portShare(s_, port);
                      share.srClass = srClass;
                      return inOctets(Msrp::allowedForClass(share));
                  });
    }
    static Value inOctets(U64 kbps) { return Value{static_cast<double>(kbps) * octets}; }

    template <class F>
    void eachClass(std::string_view name, std::string_view help, F value) {
        text_.family(name, Kind::gauge, help);
        for (const std::string& port : ports_) {
            for (const Msrp::SrClassId srClass : {Msrp::SrClassId::SrClassA, Msrp::SrClassId::SrClassB}) {
                text_.sample({{"port", port}, {"class", srClass == Msrp::SrClassId::SrClassA ? "A" : "B"}},
                             value(port, srClass));
            }
        }
    }

    void declarations() {
        constexpr std::string_view discarded = "Discarded";
        const std::string failedHere = State::enumText(Msrp::MsrpCounter::talkerAdvertiseFailedHere);
        const auto each = [this, discarded, failedHere](std::string_view name, std::string_view help,
                                                        std::string_view field, bool discards) {
            text_.family(name, Kind::counter, help);
            for (const std::string& port : ports_) {
                const Value& counters = at(s_.record("msrp/status"), {"intfStatus", port, field});
                for (const auto& counter : Msrp::msrpCounterNames) {
                    std::string_view type = counter.name;
                    if (type == failedHere) continue;  // counted as an advertise, too
                    if (type.ends_with(discarded) != discards) continue;
                    if (discards) type.remove_suffix(discarded.size());
                    text_.sample({{"port", port}, {"type", type}}, at(counters, {counter.name}));
                }
            }
        };
        each("msrp_port_declarations_received_total", "Declarations and withdrawals that were taken.",
             "rxCounters", false);
        each("msrp_port_declarations_discarded_total", "Declarations and withdrawals that were discarded.",
             "rxCounters", true);
        each("msrp_port_declarations_sent_total", "Declarations and withdrawals that were made.",
             "txCounters", false);
        text_.family("msrp_port_advertises_failed_here_total", Kind::counter,
                     "Talker Advertises that were taken, and passed on as failed.");
        for (const std::string& port : ports_)
            text_.sample({{"port", port}},
                         at(s_.record("msrp/status"), {"intfStatus", port, "rxCounters", failedHere}));
    }

    void engine() {
        for (const EngineCounter& counter : engineCounters) {
            text_.family(counter.name, Kind::counter, counter.help);
            eachEngine([&](std::string_view protocol, const std::string& port, const Value& status) {
                text_.sample({{"port", port}, {"protocol", protocol}}, at(status, {counter.field}));
            });
        }
        for (const EventCounter& counter : eventCounters) {
            text_.family(counter.name, Kind::counter, counter.help);
            eachEngine([&](std::string_view protocol, const std::string& port, const Value& status) {
                for (const std::string_view kind : counter.kinds) {
                    // What has not been counted has no entry.
                    const Value& count = at(status, {counter.field, kind});
                    text_.sample({{"port", port}, {"protocol", protocol}, {counter.label, kind}},
                                 count.isNull() ? Value{U64{0}} : count);
                }
            });
        }
    }
    template <class F>
    void eachEngine(F body) {
        for (const auto& [protocol, record] : engines) {
            for (const auto& [port, status] : Show::membersOf(at(s_.record(record), {"intf"})))
                body(protocol, port, status);
        }
    }

    void packets() {
        const auto each = [this](std::string_view name, std::string_view help, std::string_view received,
                                 std::string_view sent) {
            text_.family(name, Kind::counter, help);
            for (const auto& [port, packets] : Show::membersOf(at(s_.record("linux/packets"), {"intf"}))) {
                text_.sample({{"port", port}, {"direction", "received"}}, at(packets, {received}));
                text_.sample({{"port", port}, {"direction", "sent"}}, at(packets, {sent}));
            }
        };
        each("msrp_port_frames_total", "Frames of the protocol that passed the port's socket.", "received",
             "sent");
        each("msrp_port_frames_dropped_total",
             "Frames of the protocol that the kernel dropped, or that found the interface away or down.",
             "receiveDropped", "sendDropped");
    }

    void kernel() {
        const Value& groups = s_.record("linux/groups");
        one("msrp_kernel_groups_wanted", Kind::gauge,
            "Pairs of group and port that the bridge should forward.", at(groups, {"wanted"}));
        one("msrp_kernel_groups_programmed", Kind::gauge, "Those of them that the bridge's table holds.",
            at(groups, {"programmed"}));
        one("msrp_kernel_groups_missing", Kind::gauge, "Those of them that it does not hold.",
            at(groups, {"missing"}));
        one("msrp_kernel_group_table_used", Kind::gauge, "Groups in the bridge's table, whoever made them.",
            at(groups, {"tableUsed"}));
        one("msrp_kernel_group_table_size", Kind::gauge,
            "Groups for which that table has room; 0: not known.", at(groups, {"tableSize"}));
        one("msrp_kernel_flooding", Kind::gauge, "Whether every stream goes to every port.",
            groups.isNull() ? Value{} : saysSomething(at(groups, {"flooded"})));
        one("msrp_fence_streams_broken", Kind::gauge,
            "Whether streams cannot be told apart from other frames of their priority, where they should be.",
            problemOf("linux/fence"));
        one("msrp_traffic_broken", Kind::gauge,
            "Whether some streams are not measured, where they should be.", problemOf("linux/traffic"));
    }
    [[nodiscard]] Value problemOf(std::string_view record) const {
        const Value& problem = at(s_.record(record), {"problem"});
        return problem.isNull() ? Value{} : saysSomething(problem);
    }

    void streams();

    const Snapshot& s_;
    const std::size_t streams_;
    const std::vector<std::string> ports_;
    MetricText text_;
};

/// A stream that has series of its own.
struct ToldStream {
    std::string name;
    const Value& record;
    const Value& traffic;  ///< null where it is not measured
};

struct StreamFamily {
    std::string_view name;
    Kind kind;
    std::string_view help;
    Value (*value)(const ToldStream& stream);
};

constexpr StreamFamily streamFamilies[]{
    {"msrp_stream_bandwidth_bytes_per_second", Kind::gauge, "Bandwidth that the stream needs.",
     [](const ToldStream& stream) {
         return Value{static_cast<double>(Show::numberOf(at(stream.record, {"bandwidth"}))) * octets};
     }},
    {"msrp_stream_failure_code", Kind::gauge, "Failure code at the talker's port; 0: none.",
     [](const ToldStream& stream) {
         const std::string from = Show::textOf(at(stream.record, {"ingressIntf"}));
         return Value{Show::numberOf(at(stream.record, {"talkerFailureCode", from}))};
     }},
    {"msrp_stream_listening_ports", Kind::gauge, "Ports that ask for the stream.",
     [](const ToldStream& stream) {
         return Value{U64{Show::membersOf(at(stream.record, {"listenerStateOrig"})).size()}};
     }},
    {"msrp_stream_failed_ports", Kind::gauge, "Ports on which a failure code is said of the stream.",
     [](const ToldStream& stream) {
         return Value{U64{Show::membersOf(at(stream.record, {"talkerFailureCode"})).size()}};
     }},
    {"msrp_stream_received_frames_total", Kind::counter,
     "Frames of the stream from its talker, where measured.",
     [](const ToldStream& stream) { return at(stream.traffic, {"frames"}); }},
    {"msrp_stream_received_bytes_total", Kind::counter, "The same in octets behind the tags.",
     [](const ToldStream& stream) { return at(stream.traffic, {"octets"}); }},
    {"msrp_stream_over_reservation_frames_total", Kind::counter,
     "Those of the frames that were over the reservation for longer than bursts last.",
     [](const ToldStream& stream) { return at(stream.traffic, {"over"}); }},
};

const State::Object& streamsOf(const Snapshot& snapshot) {
    return Show::membersOf(at(snapshot.record("msrp/status"), {"registeredStreams"}));
}

void Writer::streams() {
    std::unordered_map<std::string_view, const Value*> traffic;
    for (const auto& [id, measured] : Show::membersOf(at(s_.record("linux/traffic"), {"stream"})))
        traffic.emplace(id, &measured);
    const Value unmeasured;
    std::vector<ToldStream> told;
    for (const auto& [id, stream] : streamsOf(s_)) {
        if (told.size() == streams_) break;
        const auto measured = traffic.find(id);
        told.push_back({Show::streamName(State::parseHex(id).value_or(0)), stream,
                        measured != traffic.end() ? *measured->second : unmeasured});
    }
    one("msrp_streams_omitted", Kind::gauge,
        "Streams without series of their own, since there are more than asked for.",
        Value{U64{omittedStreams(s_, streams_)}});
    text_.family("msrp_stream_info", Kind::gauge, "1, with what a stream is.");
    for (const ToldStream& stream : told) {
        text_.sample({{"stream", stream.name},
                      {"talker_port", Show::textOf(at(stream.record, {"ingressIntf"}))},
                      {"class", Show::textOf(at(stream.record, {"srClass"})) == "SrClassA" ? "A" : "B"},
                      {"destination", Show::textOf(at(stream.record, {"macDa"}))},
                      {"vlan", std::to_string(Show::numberOf(at(stream.record, {"vlanId"})))}},
                     Value{true});
    }
    for (const StreamFamily& family : streamFamilies) {
        text_.family(family.name, family.kind, family.help);
        for (const ToldStream& stream : told) text_.sample({{"stream", stream.name}}, family.value(stream));
    }
}

}  // namespace

std::vector<Wanted> metricRecords(bool streams) {
    std::vector<Wanted> records = fewRecords();
    if (streams) {
        records.push_back({"msrp/status", "registeredStreams"});
        records.push_back({"linux/traffic", "stream"});
    }
    return records;
}

std::string metrics(const Snapshot& snapshot, std::size_t streams) { return Writer{snapshot, streams}.all(); }

std::size_t omittedStreams(const Snapshot& snapshot, std::size_t streams) {
    const std::size_t all = streamsOf(snapshot).size();
    return all - std::min(streams, all);
}

std::string mirrorMetrics(const Mirror& mirror) {
    MetricText text;
    text.family("msrp_up", Kind::gauge, "Whether the daemon answered when it was last asked.");
    text.sample({}, Value{mirror.problem().empty()});
    text.family("msrp_exporter_fetch_seconds", Kind::gauge, "How long it took to read the daemon's records.");
    text.sample({}, Value{std::chrono::duration<double>(mirror.took()).count()});
    text.family("msrp_exporter_fetches_total", Kind::counter, "How often the daemon was asked.");
    text.sample({}, Value{mirror.fetches()});
    text.family("msrp_exporter_fetch_failures_total", Kind::counter, "How often it did not answer.");
    text.sample({}, Value{mirror.failures()});
    return text.take();
}

}  // namespace Monitor
