#include "Show/WhatIf.h"

#include "Runtime/Text.h"
#include "Show/PortJudge.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"

#include <algorithm>
#include <set>
#include <utility>

namespace Show {

using Msrp::SrClassId;
using Msrp::TalkerFailureCode;
using Msrp::U64;
using Runtime::concat;
using State::Value;

namespace {

constexpr std::string_view noFailureText = "would be let in";

/// Makes what is not there on the way.
void put(Value& into, std::initializer_list<std::string_view> names, Value value) {
    Value* place = &into;
    for (const std::string_view name : names) {
        if (place->object() == nullptr) *place = State::Object{};
        auto& members = std::get<State::Object>(place->data);
        const auto held = std::ranges::find(members, name, &std::pair<std::string, Value>::first);
        place =
            held != members.end() ? &held->second : &members.emplace_back(std::string{name}, Value{}).second;
    }
    *place = std::move(value);
}

/// Streams of one port that ask for bandwidth, let in one after the other.
struct Replay {
    U64 allocatedA = 0;
    U64 allocatedB = 0;
    std::vector<PortStream> in;
    std::vector<PortStream> out;
};

bool carriable(const Snapshot& snapshot, const std::string& port, const PortStream& s) {
    const Msrp::EgressFacts facts = egressFacts(snapshot, port, s.srClass, s.vlan, s.kbps);
    return Msrp::isActive(facts.state) && Msrp::judgeEgress(facts) == TalkerFailureCode::noFailure;
}

void replay(const Snapshot& snapshot, const std::string& port, const std::vector<PortStream>& streams,
            Replay& so) {
    for (const PortStream& s : streams) {
        Msrp::AdmissionRequest r = admissionRequest(snapshot, port, s.srClass, s.kbps);
        r.allocatedA = so.allocatedA;
        r.allocatedB = so.allocatedB;
        if (!carriable(snapshot, port, s) || Msrp::admit(r) != TalkerFailureCode::noFailure) {
            so.out.push_back(s);
            continue;
        }
        (s.srClass == SrClassId::SrClassA ? so.allocatedA : so.allocatedB) += s.kbps;
        so.in.push_back(s);
    }
}

/// Those that are asked for and not reserved: first who stands in line at the port, in the order in which
/// they are tried when bandwidth is released, then those that are tried when their talkers repeat themselves.
std::vector<PortStream> waitingStreams(const Snapshot& snapshot, const std::string& port,
                                       const std::vector<PortStream>& all) {
    std::vector<PortStream> line;
    std::set<U64> inLine;
    std::map<U64, const PortStream*> byId;
    for (const PortStream& s : all) byId.emplace(s.id, &s);
    const auto add = [&](const PortStream& s) {
        if (!s.reserved && s.asked && inLine.insert(s.id).second) line.push_back(s);
    };
    for (const auto& [index, entry] :
         membersOf(at(snapshot.record("msrp/waiting"), {"bandwidthFailedIntf", port, "failedStream"}))) {
        const auto id = State::parseHex(textOf(at(entry, {"stream"})));
        const auto found = id ? byId.find(*id) : byId.end();
        if (found != byId.end()) add(*found->second);
    }
    for (const PortStream& s : all) add(s);
    return line;
}

bool changesSpeed(const Snapshot& before, const WhatIf& question, const std::string& port) {
    const auto speed = question.speeds.find(port);
    return speed != question.speeds.end() &&
           textOf(at(before.record("interface/status/eth/phy/all"), {"intfStatus", port, "speedEnum"})) !=
               State::enumText(speed->second);
}

bool grows(const Snapshot& before, const WhatIf& question) {
    return std::ranges::any_of(question.shares, [&](const auto& share) {
        return share.second >
               numberOf(at(before.record("msrp/cliConfig"), {classField(share.first, "BandwidthPercent")}));
    });
}

/// What the changes do to the streams of a port.  `after` has the changes already.
Replay effect(const Snapshot& before, const Snapshot& after, const WhatIf& question, const std::string& port,
              const std::vector<PortStream>& all) {
    Replay so;
    if (changesSpeed(before, question, port)) {
        replay(after, port, all, so);
        return so;
    }
    const Msrp::AdmissionRequest share = portShare(before, port);
    so.allocatedA = share.allocatedA;
    so.allocatedB = share.allocatedB;
    // A talker's port that starts over takes its streams away everywhere, and brings them back.
    std::vector<PortStream> again;
    std::vector<PortStream> others;
    bool released = false;
    for (const PortStream& s : all) {
        const bool comesAgain = changesSpeed(before, question, s.from);
        (comesAgain ? again : others).push_back(s);
        if (!comesAgain || !s.reserved) continue;
        (s.srClass == SrClassId::SrClassA ? so.allocatedA : so.allocatedB) -= s.kbps;
        released = true;
    }
    // Who has failed for want of the membership has waited for it.
    released = released || question.members.contains(port);
    if (released || grows(before, question)) replay(after, port, waitingStreams(before, port, others), so);
    replay(after, port, again, so);
    return so;
}

/// The copy of the records with what is asked for in them, and nothing of what would follow from it.
Snapshot withChanges(const Snapshot& before, const WhatIf& question) {
    Snapshot after = before;
    for (const auto& [srClass, percent] : question.shares)
        put(after.records["msrp/cliConfig"], {classField(srClass, "BandwidthPercent")}, Value{percent});
    for (const auto& [port, speed] : question.speeds)
        put(after.records["interface/status/eth/phy/all"], {"intfStatus", port, "speedEnum"},
            Value{State::enumText(speed)});
    for (const auto& [port, vlan] : question.members) {
        const std::string id = std::to_string(vlan);
        put(after.records["bridging/config"], {"vlanConfig", id, "intf", port, "tagged"}, Value{true});
        // A new VLAN of the switch belongs to the common tree.
        Value& topologies = after.records["bridging/topology/config"];
        if (at(topologies, {"vlanTopology", id}).isNull())
            put(topologies, {"vlanTopology", id}, Value{"Cist"});
    }
    return after;
}

/// The ports with an entry of their own in the status, each of which has bandwidth to give out.
std::vector<std::string> runningPorts(const Snapshot& snapshot) {
    std::vector<std::string> ports;
    for (const auto& [port, status] : membersOf(at(snapshot.record("msrp/status"), {"intfStatus"})))
        ports.push_back(port);
    return ports;
}

void allocate(Snapshot& snapshot, const std::string& port, const Replay& so) {
    Value& status = snapshot.records["msrp/status"];
    put(status, {"intfStatus", port, "classBandwidthAllocated", "SrClassA"}, Value{so.allocatedA});
    put(status, {"intfStatus", port, "classBandwidthAllocated", "SrClassB"}, Value{so.allocatedB});
}

bool changesBandwidth(const WhatIf& question) {
    return !question.shares.empty() || !question.speeds.empty() || !question.members.empty();
}

std::vector<Holder> reservedOf(const std::vector<PortStream>& streams) {
    std::vector<Holder> found;
    for (const PortStream& s : streams) {
        if (s.reserved) found.push_back({s.id, s.kbps});
    }
    return found;
}

/// Those that are reserved now and would not be, were all on the port to ask anew.
std::vector<Holder> losers(const Snapshot& after, const std::string& port,
                           const std::vector<PortStream>& all) {
    Replay anew;
    replay(after, port, all, anew);
    return reservedOf(anew.out);
}

Prospect prospect(const PortJudge& judge, const Snapshot& after, const std::string& port,
                  const AskedStream& asked) {
    Prospect p;
    p.port = port;
    auto verdict = judge.inactive(port, asked);
    if (!verdict) verdict = judge.egress(port, asked);
    const Msrp::AdmissionRequest r = admissionRequest(after, port, asked.srClass, asked.kbps);
    const bool open = !verdict;
    if (!verdict) verdict = judge.bandwidth(port, asked);
    p.availableKbps = open ? Msrp::availableBandwidth(r) : 0;
    if (!verdict) verdict = judge.group(port, asked);
    if (verdict) {
        p.verdict = std::move(*verdict);
        return p;
    }
    p.verdict = judge.facts(port, asked);
    p.verdict.rule = Rule::fits;
    p.verdict.what = noFailureText;
    p.count = p.verdict.inputs.tableRoom;
    if (asked.kbps != 0) p.count = std::min(p.availableKbps / asked.kbps, p.count.value_or(UINT64_MAX));
    return p;
}

Verdict talkerProspect(const PortJudge& judge, const std::string& port, const AskedStream& asked,
                       U64 maxFrameSize) {
    if (auto away = judge.inactive(port, asked)) return *away;
    if (auto failed = judge.ingress(port, asked, maxFrameSize)) return *failed;
    Verdict v = judge.facts(port, asked);
    v.rule = Rule::fits;
    v.what = "would be taken";
    return v;
}

std::string streamsText(const std::vector<Holder>& streams) {
    std::string out;
    U64 more = 0;
    for (const Holder& s : streams) {
        if (&s - streams.data() >= static_cast<std::ptrdiff_t>(maxHolders)) {
            ++more;
        } else {
            out += concat(out.empty() ? "" : ", ", streamName(s.id), " (", s.kbps, ')');
        }
    }
    return more == 0 ? out : concat(out, ", and ", more, " more");
}

std::string portLines(const Prospect& p, const Page& page) {
    std::string out = concat("to ", p.port, ": ", outcomeText(p.verdict, page));
    if (p.verdict.rule == Rule::fits) {
        out += p.count ? concat("; ", *p.count, *p.count == 1 ? " stream" : " streams", " of this kind, ",
                                kbpsText(p.availableKbps), " to be had",
                                p.count == p.verdict.inputs.tableRoom ? ", and no room for more groups" : "")
                       : "; any number of this kind, they are charged for nothing";
    }
    out += '\n' + verdictLines(p.verdict);
    if (!p.lost.empty())
        out += concat("    loses   ", streamsText(p.lost),
                      p.startsOver ? "" : "; not before the port starts over: until then they stay", '\n');
    if (!p.gained.empty())
        out += concat("    first   ", streamsText(p.gained), ", which wait for bandwidth there\n");
    return out;
}

std::string changesText(const WhatIf& q) {
    std::string out;
    const auto add = [&](const std::string& change) { out += (out.empty() ? "if    " : ", ") + change; };
    for (const auto& [srClass, percent] : q.shares)
        add(concat("class ", classLetter(srClass), " had ", percent, " per cent"));
    for (const auto& [port, speed] : q.speeds) add(concat(port, " had ", State::enumText(speed)));
    for (const auto& [port, vlan] : q.members) add(concat(port, " were in VLAN ", vlan));
    return out.empty() ? out : out + '\n';
}

/// What is there after the changes, and what they do to the streams of each port.
struct Changed {
    struct Port {
        std::vector<PortStream> all;
        Replay so;
    };
    Snapshot after;
    std::map<std::string, Port> ports;  ///< none where nothing changes
};

Changed changed(const Snapshot& before, const WhatIf& question) {
    Changed c{.after = withChanges(before, question), .ports = {}};
    if (!changesBandwidth(question)) return c;
    for (const std::string& port : runningPorts(before)) {
        Changed::Port& one = c.ports[port];
        one.all = portStreams(before, port);
        one.so = effect(before, c.after, question, port, one.all);
        allocate(c.after, port, one.so);
    }
    return c;
}

}  // namespace

std::string whatIfProblem(const Snapshot& snapshot, const WhatIf& q) {
    const std::vector<std::string> ports = enabledPorts(snapshot);
    const auto unknown = [&](const std::string& port) {
        return std::ranges::find(ports, port) == ports.end();
    };
    const auto noPort = [](const char* option, const std::string& port) {
        return concat(option, " ", port, ": MSRP is enabled on no port of this name");
    };
    if (unknown(q.from)) return noPort("--from", q.from);
    for (const std::string& port : q.to) {
        if (unknown(port)) return noPort("--to", port);
        if (port == q.from) return "--to " + port + ": that is where the talker is";
        if (std::ranges::count(q.to, port) > 1) return "--to " + port + ": named more than once";
    }
    for (const auto& [port, speed] : q.speeds) {
        if (unknown(port)) return noPort("--speed", port);
    }
    for (const auto& [port, vlan] : q.members) {
        if (unknown(port)) return noPort("--member", port);
    }
    return {};
}

Snapshot changedSnapshot(const Snapshot& before, const WhatIf& question) {
    return changed(before, question).after;
}

WhatIfAnswer whatIf(const Snapshot& before, const BridgeNames& names, const WhatIf& question) {
    const auto [after, changes] = changed(before, question);
    const PortJudge judge{after, names};
    WhatIfAnswer answer;
    answer.asked = question;
    answer.vlan = question.vlan ? *question.vlan : streamVlan(before, question.from);
    answer.chargedFrames = Msrp::recordedFrames(question.tspec.maxIntervalFrames);
    answer.kbps = Msrp::streamBandwidth(question.srClass, static_cast<Msrp::U32>(answer.chargedFrames),
                                        question.tspec.maxFrameSize);
    const AskedStream asked{.srClass = question.srClass, .vlan = answer.vlan, .kbps = answer.kbps};
    answer.talker = talkerProspect(judge, question.from, asked, question.tspec.maxFrameSize);
    std::vector<std::string> ports = question.to.empty() ? enabledPorts(before) : question.to;
    std::erase(ports, question.from);
    for (const std::string& port : ports) {
        Prospect p = prospect(judge, after, port, asked);
        if (const auto change = changes.find(port); change != changes.end()) {
            const auto& [all, so] = change->second;
            for (const PortStream& s : so.in) {
                if (!s.reserved) p.gained.push_back({s.id, s.kbps});
            }
            p.startsOver = std::ranges::any_of(so.in, &PortStream::reserved) ||
                           std::ranges::any_of(so.out, &PortStream::reserved);
            if (p.startsOver) {
                p.lost = reservedOf(so.out);
            } else if (!question.shares.empty()) {
                p.lost = losers(after, port, all);
            }
        }
        answer.ports.push_back(std::move(p));
    }
    return answer;
}

std::string whatIfText(const WhatIfAnswer& a, const Page& page) {
    constexpr U64 smallest = 42;
    const Msrp::Tspec& t = a.asked.tspec;
    std::string out = concat("class ", classLetter(a.asked.srClass), ", VLAN ", a.vlan, ": MaxFrameSize ",
                             t.maxFrameSize, ", MaxIntervalFrames ", t.maxIntervalFrames, ", ",
                             kbpsText(a.kbps), " with what is around each frame\n");
    if (a.chargedFrames != t.maxIntervalFrames)
        out += concat("    charged for ", a.chargedFrames, " frames: the low octet of ", t.maxIntervalFrames,
                      '\n');
    if (t.maxFrameSize < smallest && a.kbps != 0)
        out += concat("    frames this small are padded, so that ", smallest + 42,
                      " octets go over the wire for each, and ", t.maxFrameSize + 42, " are reserved\n");
    out += changesText(a.asked);
    out += concat("from ", a.asked.from, ": ", outcomeText(a.talker, page), '\n', verdictLines(a.talker));
    for (const Prospect& p : a.ports) out += portLines(p, page);
    return out;
}

namespace {

using ShareOfClass = std::pair<std::string, U64>;

const Column<WhatIf> changeColumns[]{
    {"share",
     [](const auto& q) {
         std::vector<ShareOfClass> shares;
         for (const auto& [srClass, percent] : q.shares)
             shares.emplace_back(std::string{classLetter(srClass)}, percent);
         return shares;
     }},
    {"speed",
     [](const auto& q) {
         return std::vector<std::pair<std::string, Interface::Speed>>{q.speeds.begin(), q.speeds.end()};
     }},
    {"member",
     [](const auto& q) {
         return std::vector<std::pair<std::string, Msrp::U16>>{q.members.begin(), q.members.end()};
     }},
};

const Column<Prospect> prospectColumns[]{
    {"port", [](const auto& p) { return p.port; }},
    {"fits", [](const auto& p) { return p.verdict.rule == Rule::fits; }},
    {"streams", [](const auto& p) { return p.count; }},
    {"availableKbps", [](const auto& p) { return p.availableKbps; }},
    {"loses", [](const auto& p) { return p.lost; }},
    {"gains", [](const auto& p) { return p.gained; }},
    {"startsOver", [](const auto& p) { return p.startsOver; }},
    {"verdict", [](const auto& p) { return p.verdict; }},
};

}  // namespace

}  // namespace Show

template <>
struct State::Codec<Show::WhatIf> {
    static Value encode(const Show::WhatIf& question) {
        return Show::objectValue(Show::changeColumns, question);
    }
    static Schema schema() { return Show::objectSchema(Show::changeColumns); }
};
template <>
struct State::Codec<std::vector<Show::Prospect>> {
    static Value encode(const std::vector<Show::Prospect>& ports) {
        return Show::Table{Show::prospectColumns, 1, ports}.value();
    }
    static Schema schema() { return Show::tableSchema(Show::prospectColumns, 1); }
};

namespace Show {

namespace {

bool allFit(const WhatIfAnswer& a) {
    return a.talker.rule == Rule::fits &&
           std::ranges::all_of(a.ports, [](const Prospect& p) { return p.verdict.rule == Rule::fits; });
}

const Column<WhatIfAnswer> answerColumns[]{
    {"fits", [](const auto& a) { return allFit(a); }},
    {"class", [](const auto& a) { return std::string{classLetter(a.asked.srClass)}; }},
    {"vlan", [](const auto& a) { return a.vlan; }},
    {"kbps", [](const auto& a) { return a.kbps; }},
    {"maxFrameSize", [](const auto& a) { return a.asked.tspec.maxFrameSize; }},
    {"maxIntervalFrames", [](const auto& a) { return a.asked.tspec.maxIntervalFrames; }},
    {"chargedFrames", [](const auto& a) { return a.chargedFrames; }},
    {"changes", [](const auto& a) { return a.asked; }},
    {"from", [](const auto& a) { return a.asked.from; }},
    {"talker", [](const auto& a) { return a.talker; }},
    {"ports", [](const auto& a) { return a.ports; }},
};

}  // namespace

Value whatIfValue(const WhatIfAnswer& a) { return objectValue(answerColumns, a); }
State::Schema whatIfSchema() { return objectSchema(answerColumns); }

}  // namespace Show
