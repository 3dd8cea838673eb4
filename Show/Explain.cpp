#include "Show/Explain.h"

#include "Msrp/talker/TalkerValidation.h"
#include "Msrp/types/Attributes.h"
#include "Runtime/Text.h"
#include "Show/Capabilities.h"
#include "Show/FailureCodes.h"
#include "Show/PortJudge.h"
#include "Show/StreamReport.h"
#include "Show/Table.h"
#include "Switch/Ranged.h"

#include <algorithm>
#include <optional>

namespace Show {

using Msrp::SrClassId;
using Msrp::TalkerFailureCode;
using Msrp::U64;
using Runtime::concat;
using State::Value;

namespace {

/// What was last heard of an attribute, as on the wire; nothing when nothing is registered.
template <class Attribute>
std::optional<Attribute> heard(const Value& attribute) {
    const std::string hex = textOf(at(attribute, {"registered", "value"}));
    if (hex.size() != 2 * Attribute::length) return std::nullopt;
    std::vector<Msrp::U8> octets;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const auto octet = State::parseHex("0x" + hex.substr(i, 2));
        if (!octet) return std::nullopt;
        octets.push_back(static_cast<Msrp::U8>(*octet));
    }
    return Attribute{octets};
}

double ageOf(const Value& attribute) {
    return State::Codec<double>::decode(at(attribute, {"age"})).value_or(-1.0);
}

/// "MaxFrameSize 200 instead of 100, VLAN 3 instead of 2"
std::string changes(const Value& held, const Msrp::MsrpTalkerAdvertiseAttribute& now) {
    std::string out;
    const auto compare = [&](const char* what, const std::string& before, const std::string& after) {
        if (before != after) out += concat(out.empty() ? "" : ", ", what, ' ', after, " instead of ", before);
    };
    const auto number = [&](const char* what, const char* field, U64 after) {
        compare(what, std::to_string(numberOf(at(held, {field}))), std::to_string(after));
    };
    compare("address", textOf(at(held, {"macDa"})), now.macDa().text());
    number("VLAN", "vlanId", now.vlanId());
    number("priority", "dataFramePriority", now.dataFramePriority());
    number("rank", "rank", now.rank());
    number("MaxFrameSize", "maxFrameSize", now.maxFrameSize());
    number("MaxIntervalFrames", "maxIntervalFrames", Msrp::recordedFrames(now.maxIntervalFrames()));
    return out;
}

bool goesWell(const Verdict& v) {
    return v.rule == Rule::carried || v.rule == Rule::advertised || v.rule == Rule::talkerPort;
}

class Explainer {
public:
    Explainer(const Snapshot& snapshot, const BridgeNames& names, U64 id)
        : snapshot_{snapshot}, names_{names}, judge_{snapshot, names}, id_{id} {
        if (auto known = streamReport(snapshot, id)) report_ = std::move(*known);
        asked_ = {.id = id,
                  .srClass = classNamed("SrClass" + report_.srClass),
                  .vlan = report_.vlan,
                  .kbps = report_.kbps};
        if (report_.srClass.empty()) {
            const auto refused = refusedClass();
            classKnown_ = refused.has_value();
            asked_.srClass = refused.value_or(SrClassId::SrClassA);
        }
    }

    [[nodiscard]] Explanation explain(const std::string& port) const {
        Explanation e;
        const auto number = [&](std::string_view field) { return numberOf(at(report_.record, {field})); };
        e.id = id_;
        e.name = names_.of(id_ >> 16, report_.from);
        e.from = report_.from;
        if (!report_.from.empty()) {
            e.destination = report_.destination;
            e.srClass = report_.srClass;
            e.vlan = report_.vlan;
            e.kbps = report_.kbps;
            e.priority = number("dataFramePriority");
            e.maxFrameSize = number("maxFrameSize");
            e.maxIntervalFrames = number("maxIntervalFrames");
        }
        e.talker = report_.from.empty() ? unheard() : talker();
        std::vector<std::string> ports = enabledPorts(snapshot_);
        if (!port.empty()) ports = {port};
        for (const std::string& name : ports) {
            if (name != report_.from || name == port) e.ports.emplace_back(name, to(name, e.talker));
        }
        for (const auto& [name, verdict] : e.ports) {
            if (!report_.from.empty() && goesWell(verdict) && name != report_.from && discardedAt(name))
                e.remarks.push_back(concat("Behind ", name,
                                           " somebody declares a stream of the same id, which ",
                                           "is not taken: who is first has it."));
        }
        if (!isTrue(at(snapshot_.record("msrp/status"), {"msrpEnabled"})))
            e.remarks.emplace_back("MSRP does not run here: no port is enabled, or another agent acts.");
        for (std::string rest = floodText(snapshot_); !rest.empty();) {
            const auto end = rest.find('\n');
            e.remarks.push_back(rest.substr(0, end));
            rest.erase(0, end == std::string::npos ? end : end + 1);
        }
        return e;
    }

private:
    [[nodiscard]] Verdict say(const std::string& port, Rule rule, std::string what,
                              std::string why = {}) const {
        Verdict v = judge_.facts(port, asked_);
        v.rule = rule;
        v.what = std::move(what);
        v.why = std::move(why);
        return v;
    }
    static void blame(Verdict& v, Whose whose, std::string who, std::vector<Mend> mends) {
        v.whose = whose;
        v.who = std::move(who);
        v.mends = std::move(mends);
    }

    [[nodiscard]] std::string talkerName() const {
        const std::string name = names_.of(id_ >> 16, report_.from);
        const std::string address = EthAddr::fromNumber(id_ >> 16).text();
        return name.empty() ? "the talker " + address : concat("the talker ", name, " (", address, ')');
    }
    [[nodiscard]] std::string listenerAt(const std::string& port) const {
        const std::string name = names_.behind(port);
        return name.empty() ? "the listener behind " + port
                            : concat("the listener behind ", port, " (", name, ')');
    }

    // The talker's side

    [[nodiscard]] Verdict talker() const {
        const std::string& port = report_.from;
        const U64 code = numberOf(at(report_.record, {"talkerFailureCode", port}));
        Verdict v = report_.talker == "Failed" ? upstream(code) : code != 0 ? failedHere(code) : taken();
        v.since = report_.age;
        return v;
    }

    [[nodiscard]] Verdict taken() const {
        const std::string group = refusedGroup();
        Verdict v = say(report_.from, Rule::advertised, "declared, taken and passed on");
        // The listeners that it sends away are not all told yet.
        if (!group.empty()) {
            judge_.refuseGroup(v, group);
            v.what = codeText(v.code);
        }
        if (report_.talker.empty() || report_.talker == "None")
            v = say(report_.from, Rule::notDeclared, "withdrawn, the rest is under way");
        return v;
    }

    [[nodiscard]] std::string refusedGroup() const {
        return textOf(at(snapshot_.record("switch/refusals"),
                         {"group", std::to_string(report_.vlan) + '-' + report_.destination, "why"}));
    }

    /// A bridge between the talker and this one has failed it.
    [[nodiscard]] Verdict upstream(U64 code) const {
        const U64 bridge = State::parseHex(textOf(at(report_.record, {"failedBridgeId"}))).value_or(0);
        const FailureText text = failureText(code);
        const bool known = code != 0 && code <= failureTexts.size();
        Verdict v = say(report_.from, Rule::upstream,
                        known ? codeText(code) : "a failure that is not known here", std::string{text.why});
        v.code = code;
        v.bridge = bridge;
        v.why += concat("; found by bridge ", names_.bridge(bridge, report_.from), ", heard from ",
                        judge_.peerAt(report_.from));
        const bool ours = judge_.isThisBridge(bridge);
        blame(
            v, Whose::bridge,
            ours ? judge_.thisBridge() + ": its own word has come back to it"
                 : "bridge " + names_.bridge(bridge, report_.from),
            {{ours ? "look for a loop between the talker's port and another one" : std::string{text.mend}}});
        return v;
    }

    /// This bridge has found it, and fails it for everybody.
    [[nodiscard]] Verdict failedHere(U64 code) const {
        const std::string& port = report_.from;
        using enum TalkerFailureCode;
        Verdict v = say(port, Rule::otherCode, codeText(code), std::string{failureText(code).why});
        blame(v, Whose::bridge, judge_.thisBridge(), {{std::string{failureText(code).mend}}});
        switch (TalkerFailureCode{static_cast<Msrp::U8>(code)}) {
            case destinationAddressInUse:
                addressInUse(v);
                break;
            case cannotStoreAddress:
                if (const std::string group = refusedGroup(); !group.empty()) {
                    judge_.refuseGroup(v, group);
                } else {
                    gone(v);
                }
                break;
            case latencyChanged:
            case firstValueChanged:
                changed(v, code);
                break;
            case egressPortNotAvbCapable:
            case maxFrameSizeTooLarge:
            case vlanBlocked:
            case vlanTaggingDisabled: {
                const auto still = judge_.ingress(port, askedNow(), declaredFrameSize());
                if (still) {
                    v = *still;
                } else {
                    gone(v);
                }
                break;
            }
            default:
                break;
        }
        v.code = code;
        v.bridge = State::parseHex(textOf(at(report_.record, {"failedBridgeId"})));
        return v;
    }

    [[nodiscard]] std::optional<Msrp::MsrpTalkerAdvertiseAttribute> declaredNow() const {
        return heard<Msrp::MsrpTalkerAdvertiseAttribute>(
            snapshot_.record(attributePath(report_.from, Msrp::typeTalkerAdvertise, id_)));
    }
    /// What the agent judges by; the record keeps what was declared first.
    [[nodiscard]] AskedStream askedNow() const {
        AskedStream asked = asked_;
        if (const auto now = declaredNow()) {
            asked.vlan = now->vlanId();
            asked.srClass = classOf(now->dataFramePriority()).value_or(asked.srClass);
        }
        return asked;
    }
    [[nodiscard]] std::optional<SrClassId> classOf(U64 priority) const {
        for (const SrClassId srClass : Msrp::bothClasses) {
            if (classPriority(snapshot_, srClass) == priority) return srClass;
        }
        return std::nullopt;
    }
    [[nodiscard]] U64 declaredFrameSize() const {
        const auto now = declaredNow();
        return now ? now->maxFrameSize() : numberOf(at(report_.record, {"maxFrameSize"}));
    }

    void addressInUse(Verdict& v) const {
        v.rule = Rule::addressInUse;
        std::string holder = "another stream";
        std::string place;
        if (report_.wait) {
            v.wait = report_.wait;
            WaitReport wait = *report_.wait;
            if (wait.holder) {
                holder = "stream " + streamName(*wait.holder);
                v.holders = {{*wait.holder, 0}};
                wait.holder.reset();
            }
            place = waitText(wait);
        }
        v.why = concat("in VLAN ", report_.vlan, " the address ", report_.destination, " belongs to ", holder,
                       place);
        blame(
            v, Whose::talker, talkerName() + ", or that of the other stream",
            {{"another destination address for this stream, at its talker, after it has withdrawn the stream "
              "(MAAP gives them out)"},
             {"end " + holder}});
    }

    void changed(Verdict& v, U64 code) const {
        const bool latency = code == Msrp::number(TalkerFailureCode::latencyChanged);
        v.rule = latency ? Rule::latencyChanged : Rule::firstValueChanged;
        const auto now = declaredNow();
        std::string what;
        if (now) {
            what = latency ? concat("AccumulatedLatency ", now->accumulatedLatency(), " ns instead of ",
                                    numberOf(at(report_.record, {"accumulatedLatency"})))
                           : changes(report_.record, *now);
        }
        v.why = concat("listeners have reserved for what was declared first, and now it is ",
                       what.empty() ? "something else" : what);
        blame(v, Whose::talker, latency ? talkerName() + ", or a bridge before this one" : talkerName(),
              {{"withdraw the stream at its talker and declare it anew, so that listeners reserve for that"},
               {"declare again what was declared first"}});
    }

    static void gone(Verdict& v) {
        v.rule = Rule::gone;
        v.why =
            "nothing of this is in the way any more; this bridge looks again when the talker repeats its "
            "declaration";
        blame(v, Whose::nobody, {}, {{"wait for the next LeaveAll round (10 to 15 s by default)"}});
    }

    /// Nothing is registered of it: it was declared and not taken, or nobody has declared it.
    [[nodiscard]] Verdict unheard() const {
        for (const std::string& port : enabledPorts(snapshot_)) {
            if (auto refused = discardedAt(port)) return *refused;
        }
        Verdict v = say({}, Rule::noTalker, "no talker");
        v.why = "no port has a declaration of a talker for this stream";
        U64 dropped = 0;
        for (const std::string& port : enabledPorts(snapshot_))
            dropped += numberOf(at(snapshot_.record("mrp/status"), {"intf", port, "droppedRegistrations"}));
        if (dropped != 0)
            v.why += concat("; ", dropped,
                            " declarations were left out because their port had as many as it may "
                            "have (maxAttributesPerType in mrp/config)");
        blame(v, Whose::talker, talkerName(),
              {{"let it declare the stream; if it does, look at the bridges between it and here, and at show "
                "domain"}});
        return v;
    }

    [[nodiscard]] std::optional<Verdict> discardedAt(const std::string& port) const {
        for (const Msrp::U8 type : {Msrp::typeTalkerAdvertise, Msrp::typeTalkerFailed}) {
            const Value& attribute = snapshot_.record(attributePath(port, type, id_));
            if (!isTrue(at(attribute, {"refused"}))) continue;
            if (auto refused = discarded(port, attribute, type)) return refused;
        }
        return std::nullopt;
    }

    [[nodiscard]] std::optional<Verdict> discarded(const std::string& port, const Value& attribute,
                                                   Msrp::U8 type) const {
        const bool advertise = type == Msrp::typeTalkerAdvertise;
        Msrp::TalkerFacts facts;
        const auto take = [&](const auto& heardNow) {
            if (!heardNow) return false;
            facts.vlanId = heardNow->vlanId();
            facts.macDa = heardNow->macDa();
            facts.priority = heardNow->dataFramePriority();
            return true;
        };
        if (!(advertise ? take(heard<Msrp::MsrpTalkerAdvertiseAttribute>(attribute))
                        : take(heard<Msrp::MsrpTalkerFailedAttribute>(attribute))))
            return std::nullopt;
        facts.intf = IntfId{port};
        facts.streamId = id_;
        if (!report_.from.empty()) facts.knownIngress = IntfId{report_.from};
        facts.priorityA = classPriority(snapshot_, SrClassId::SrClassA);
        facts.priorityB = classPriority(snapshot_, SrClassId::SrClassB);
        facts.stateA = classState(snapshot_, port, SrClassId::SrClassA);
        facts.stateB = classState(snapshot_, port, SrClassId::SrClassB);
        const Msrp::TalkerVerdict verdict = advertise ? Msrp::checkTalkerAdvertise(facts) : failedJoin(facts);
        AskedStream asked = asked_;
        asked.vlan = facts.vlanId;
        if (verdict.why == Msrp::TalkerVerdict::Why::classAway) asked.srClass = verdict.srClass;
        Verdict v = judge_.facts(port, asked);
        v.since = ageOf(attribute);
        judgeDiscard(v, port, asked, facts, verdict.why);
        return v;
    }

    /// As the agent takes a failure: its VLAN is looked at before all else, and where it comes in last.
    static Msrp::TalkerVerdict failedJoin(const Msrp::TalkerFacts& facts) {
        Msrp::TalkerVerdict verdict = Msrp::checkTalkerFailed(facts);
        if (!VlanId::inRange(facts.vlanId)) {
            verdict.why = Msrp::TalkerVerdict::Why::vlanOutOfRange;
        } else if (verdict.why == Msrp::TalkerVerdict::Why::taken && facts.knownIngress &&
                   facts.knownIngress != facts.intf) {
            verdict.why = Msrp::TalkerVerdict::Why::otherPort;
        }
        return verdict;
    }

    /// Of the first declaration that was not taken.
    [[nodiscard]] std::optional<SrClassId> refusedClass() const {
        for (const std::string& port : enabledPorts(snapshot_)) {
            for (const Msrp::U8 type : {Msrp::typeTalkerAdvertise, Msrp::typeTalkerFailed}) {
                const Value& attribute = snapshot_.record(attributePath(port, type, id_));
                if (const auto now = heard<Msrp::MsrpTalkerAdvertiseAttribute>(attribute))
                    return classOf(now->dataFramePriority());
                if (const auto now = heard<Msrp::MsrpTalkerFailedAttribute>(attribute))
                    return classOf(now->dataFramePriority());
            }
        }
        return std::nullopt;
    }

    void judgeDiscard(Verdict& v, const std::string& port, const AskedStream& asked,
                      const Msrp::TalkerFacts& facts, Msrp::TalkerVerdict::Why discard) const {
        using Why = Msrp::TalkerVerdict::Why;
        const auto is = [&](Rule rule, std::string why, std::vector<Mend> mends) {
            v.rule = rule;
            v.what = "declared on " + port + ", and not taken";
            v.why = std::move(why);
            blame(v, Whose::talker, talkerName(), std::move(mends));
        };
        switch (discard) {
            case Why::vlanOutOfRange:
                return is(Rule::vlanOutOfRange, concat("VLAN ", facts.vlanId, " is not from 1 to 4094"),
                          {{concat("VLAN ", streamVlan(snapshot_, port),
                                   " at the talker: that is what the port "
                                   "declares")}});
            case Why::notMulticast:
                return is(Rule::notMulticast, concat("its destination ", facts.macDa, " is no group address"),
                          {{"an address from 91:e0:f0:00:00:00 to 91:e0:f0:ff:ff:ff at the talker"}});
            case Why::notForStreams:
                return is(Rule::notForStreams,
                          concat("its destination ", facts.macDa, " is not one for streams"),
                          {{"an address from 91:e0:f0:00:00:00 to 91:e0:f0:ff:ff:ff at the talker"}});
            case Why::otherPort:
                return is(Rule::otherTalkerPort,
                          concat("the same stream id comes from a talker at ", report_.from,
                                 ", and who is first has it"),
                          {{"another stream id for one of the two"},
                           {"if the talker has moved: nothing, its old place is given up within a second"}});
            case Why::noClass:
                return is(
                    Rule::noClassPriority,
                    concat("its priority ", facts.priority, " is that of no class: class A has ",
                           facts.priorityA, ", class B ", facts.priorityB),
                    {{concat("priority ", facts.priorityA, " or ", facts.priorityB, " at the talker")}});
            case Why::classAway: {
                if (auto away = judge_.inactive(port, asked)) {
                    const double since = v.since;
                    v = std::move(*away);
                    v.why = concat(v.what, v.why.empty() ? "" : ": ", v.why);
                    v.rule = Rule::classAway;
                    v.what = "declared on " + port + ", and not taken";
                    v.since = since;
                    return;
                }
                break;
            }
            case Why::taken:
                break;
        }
        v.rule = Rule::gone;
        gone(v);
        v.what = "declared on " + port + ", and not taken yet";
    }

    // The other ports

    [[nodiscard]] Verdict to(const std::string& port, const Verdict& talker) const {
        if (port == report_.from) return atTalker(port);
        if (auto away = classKnown_ ? judge_.inactive(port, asked_) : judge_.away(port, asked_)) return *away;
        // What somebody else declares there takes nothing away from who has it.
        if (!report_.from.empty() && !inGroup(snapshot_, report_.record, port)) {
            if (auto second = discardedAt(port)) return *second;
        }
        const auto p = std::ranges::find(report_.ports, port, &StreamPortReport::name);
        if (report_.from.empty() || p == report_.ports.end()) return withoutTalker(port, talker);
        Verdict v = declared(port, *p, talker);
        if (v.since < 0) v.since = p->age;
        if (p->wait && !v.wait) v.wait = p->wait;
        if (v.wait && v.wait->age >= 0) v.since = v.wait->age;
        return v;
    }

    [[nodiscard]] Verdict atTalker(const std::string& port) const {
        const bool asked =
            isTrue(at(snapshot_.record(attributePath(port, Msrp::typeListener, id_)), {"refused"}));
        if (!asked) return say(port, Rule::talkerPort, "the talker's own port");
        Verdict v = say(
            port, Rule::listenerAtTalker, "a listener behind the talker's own port",
            "the stream passes there without this bridge, which sends nothing back to where it came from");
        blame(v, Whose::listener, listenerAt(port),
              {{"nothing, where both are behind one hub; else look for a loop"}});
        return v;
    }

    [[nodiscard]] Verdict withoutTalker(const std::string& port, const Verdict& talker) const {
        Verdict v = say(port, Rule::noTalker, "no talker", "the talker's side says why");
        v.since = -1;
        const std::string asks = textOf(at(report_.record, {"listenerStateOrig", port}));
        if (!asks.empty()) v.why = concat("a listener asks (", asks, "), and the talker's side says why not");
        v.whose = talker.whose;
        v.who = talker.who;
        return v;
    }

    [[nodiscard]] Verdict declared(const std::string& port, const StreamPortReport& p,
                                   const Verdict& talker) const {
        if (inGroup(snapshot_, report_.record, port)) return reserved(port);
        // A failure may come without a code.
        if (talker.code != 0 || talker.rule == Rule::upstream) return behindTalker(port, talker);
        const U64 code = numberOf(at(report_.record, {"talkerFailureCode", port}));
        if (auto now = judge_.egress(port, asked_)) return told(std::move(*now), code);
        if (code != 0) {
            if (auto now = judge_.bandwidth(port, asked_)) return told(waits(std::move(*now), p), code);
            Verdict v = say(port, Rule::gone, codeText(code));
            v.code = code;
            gone(v);
            return v;
        }
        return unasked(port, p);
    }

    /// What was told to the port, with what would be told now where that is something else.
    static Verdict told(Verdict v, U64 code) {
        if (code == 0 || code == v.code) return v;
        v.why = concat("now it would be ", v.what, " (code ", v.code, ")", v.why.empty() ? "" : ": ", v.why);
        v.what = codeText(code);
        v.code = code;
        return v;
    }

    [[nodiscard]] static Verdict waits(Verdict v, const StreamPortReport& p) {
        if (!p.wait) return v;
        WaitReport place = *p.wait;
        place.missing = 0;
        v.wait = p.wait;
        v.why += waitText(place);
        return v;
    }

    [[nodiscard]] Verdict reserved(const std::string& port) const {
        const std::string entry = concat(report_.vlan, '/', report_.destination, '/', port);
        const Value& groups = snapshot_.record("linux/groups");
        std::string refused = textOf(at(groups, {"failed", entry}));
        if (refused.empty()) refused = refusedGroup();
        if (!refused.empty()) {
            Verdict v = say(port, Rule::notForwarded, "reserved, and not forwarded");
            judge_.refuseGroup(v, refused);
            v.rule = Rule::notForwarded;
            v.code = 0;
            return v;
        }
        if (isTrue(at(groups, {"notOffloaded", entry}))) {
            Verdict v = say(port, Rule::notOffloaded, "reserved, and not forwarded",
                            "the kernel has the forwarding entry, and the switch chip has not taken it");
            blame(v, Whose::kernel, "the driver of the switch chip",
                  {{"room in the chip's table: fewer groups; the driver's messages (dmesg) say more"}});
            return v;
        }
        Verdict v = say(port, Rule::carried, "carried");
        const std::string asks = textOf(at(report_.record, {"listenerState", port}));
        v.why = concat("listener ", asks.empty() ? "gone, the rest is under way" : asks, "; ",
                       kbpsText(asked_.kbps), " reserved");
        return v;
    }

    /// Failed already where it comes in: the same for every port.
    [[nodiscard]] Verdict behindTalker(const std::string& port, const Verdict& talker) const {
        Verdict v =
            say(port, talker.rule, talker.what, "failed for all ports where it comes in, see the talker");
        v.code = talker.code;
        v.bridge = talker.bridge;
        v.whose = talker.whose;
        v.who = talker.who;
        return v;
    }

    /// Nothing fails it: it is for the listener to ask.
    [[nodiscard]] Verdict unasked(const std::string& port, const StreamPortReport& p) const {
        if (p.talker.empty() || p.talker == "None") {
            Verdict v =
                say(port, Rule::notDeclared, "not declared to the port", "the declaration is under way");
            blame(v, Whose::bridge, judge_.thisBridge(),
                  {{"wait a second; if it lasts, show log says what was in the way"}});
            return v;
        }
        const Value& listener = snapshot_.record(attributePath(port, Msrp::typeListener, id_));
        if (p.listener == "AskingFailed") {
            Verdict v =
                say(port, Rule::listenerFailed, "the listener cannot receive it",
                    "it asks with Asking Failed: it, or a bridge before it, has no way to take the stream");
            blame(v, Whose::listener, listenerAt(port),
                  {{"look there: explain on that bridge, or the listener's own state"}});
            return v;
        }
        if (p.listener.empty() || p.listener == "Ignore") {
            const bool refused = isTrue(at(listener, {"refused"}));
            Verdict v =
                say(port, Rule::noListener, "no listener",
                    refused ? "a listener has asked, and was not taken when it did: it is looked at again "
                              "when it repeats that"
                            : "the talker is declared to the port, and nobody there asks for the stream");
            blame(v, Whose::listener, listenerAt(port),
                  {{refused ? "wait for the next LeaveAll round (10 to 15 s by default)"
                            : "let a listener there connect to the stream (Listener Ready)"}});
            return v;
        }
        Verdict v = say(port, Rule::underWay, "asked for, not carried yet",
                        concat("the listener says ", p.listener, ", nothing is in the way"));
        blame(v, Whose::bridge, judge_.thisBridge(),
              {{"wait a second; if it lasts, show log says what was in the way"}});
        return v;
    }

    const Snapshot& snapshot_;
    const BridgeNames& names_;
    PortJudge judge_;
    U64 id_;
    StreamReport report_;  ///< without a talker when the stream is not known
    AskedStream asked_;
    bool classKnown_ = true;
};

/// "carried since 12s", "insufficient bandwidth (code 1) since 12s"
std::string headline(const Verdict& v, const Page& page) {
    return outcomeText(v, page) + (v.since >= 0 ? " since " + ageText(v.since) : "");
}

struct Paragraph {
    std::string names;
    std::string headline;
    std::string lines;
};

}  // namespace

std::vector<std::string> explainMore(const Snapshot& snapshot, U64 id) {
    std::vector<std::string> paths = judgedMore(snapshot);
    for (const std::string& port : enabledPorts(snapshot)) {
        for (const Msrp::U8 type : {Msrp::typeTalkerAdvertise, Msrp::typeTalkerFailed, Msrp::typeListener})
            paths.push_back(attributePath(port, type, id));
    }
    return paths;
}

Explanation explain(const Snapshot& snapshot, const BridgeNames& names, U64 id, const std::string& port) {
    return Explainer{snapshot, names, id}.explain(port);
}

std::string explainText(const Explanation& e, const Page& page) {
    std::string out =
        painted("stream", Mood::heading, page) + concat(' ', streamName(e.id), " (", State::hexText(e.id),
                                                        ')', e.name.empty() ? "" : " of " + e.name, '\n');
    if (!e.from.empty()) {
        out += concat("    to ", e.destination, ", VLAN ", e.vlan, ", class ", e.srClass, ", priority ",
                      e.priority, "\n    needs ", kbpsText(e.kbps), ": ", e.maxIntervalFrames, " x ",
                      e.maxFrameSize, " octets in ", e.srClass == "A" ? "125" : "250", " us\n");
    }
    out += concat("talker", e.from.empty() ? "" : " at " + e.from, ": ", headline(e.talker, page), '\n',
                  verdictLines(e.talker));
    std::vector<Paragraph> paragraphs;
    for (const auto& [port, verdict] : e.ports) {
        Paragraph one{port, headline(verdict, page), verdictLines(verdict)};
        const auto same = std::ranges::find_if(paragraphs, [&](const Paragraph& p) {
            return p.headline == one.headline && p.lines == one.lines;
        });
        if (same == paragraphs.end()) {
            paragraphs.push_back(std::move(one));
        } else {
            same->names += ", " + port;
        }
    }
    for (const Paragraph& p : paragraphs) out += concat("to ", p.names, ": ", p.headline, '\n', p.lines);
    for (const std::string& remark : e.remarks) out += remark + '\n';
    return out;
}

namespace {

const Column<Explanation> explanationColumns[]{
    {"id", [](const auto& e) { return HexId{e.id}; }},
    {"stream", [](const auto& e) { return streamName(e.id); }},
    {"name", [](const auto& e) { return textOrNone(e.name); }},
    {"destination", [](const auto& e) { return textOrNone(e.destination); }},
    {"class", [](const auto& e) { return textOrNone(e.srClass); }},
    {"vlan", [](const auto& e) { return e.vlan; }},
    {"priority", [](const auto& e) { return e.priority; }},
    {"kbps", [](const auto& e) { return e.kbps; }},
    {"maxFrameSize", [](const auto& e) { return e.maxFrameSize; }},
    {"maxIntervalFrames", [](const auto& e) { return e.maxIntervalFrames; }},
    {"from", [](const auto& e) { return textOrNone(e.from); }},
    {"talker", [](const auto& e) { return e.talker; }},
    {"ports", [](const auto& e) { return e.ports; }},
    {"remarks", [](const auto& e) { return Numbered<std::string>{e.remarks}; }},
};

}  // namespace

Value explainValue(const Explanation& e) { return objectValue(explanationColumns, e); }
State::Schema explainSchema() { return objectSchema(explanationColumns); }

}  // namespace Show
