#include "Show/PortJudge.h"

#include "Runtime/Text.h"
#include "Show/FailureCodes.h"
#include "Show/Table.h"
#include "Switch/EthAddr.h"

#include <algorithm>
#include <utility>

namespace Show {

using Msrp::SrClassId;
using Msrp::TalkerFailureCode;
using Msrp::U64;
using Runtime::concat;
using State::Value;

namespace {

const Value& statusOf(const Snapshot& snapshot, const std::string& port) {
    return at(snapshot.record("msrp/status"), {"intfStatus", port});
}

const Value& physical(const Snapshot& snapshot, const std::string& port) {
    return at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port});
}

constexpr const char* fullDuplex = "full duplex on both ends of the link";
/// On such a link nothing is promised, and no speed is told of it.
bool halfDuplex(const Verdict& v) { return v.inputs.kernel.find("duplex") != std::string::npos; }

/// What a talker declares of a stream that is there it cannot change (code 16).
std::string_view afterWithdrawal(const AskedStream& asked) {
    return asked.id != 0 ? ", after it has withdrawn the stream" : "";
}

std::string bridgeOf(const Snapshot& snapshot) {
    return textOf(at(snapshot.record("linux/config"), {"bridge"}));
}

}  // namespace

std::vector<std::string> judgedRecords() {
    return {"msrp/status",     "msrp/waiting",
            "msrp/config",     "msrp/cliConfig",
            "bridging/config", "bridging/input/config/msrp",
            "stp/status",      "bridging/topology/config",
            "linux/groups",    "interface/status/eth/phy/all",
            "linux/config",    "interface/status/eth/intf",
            "switch/refusals", "switch/time",
            "mrp/status",      "mvrp/config"};
}

std::vector<std::string> judgedMore(const Snapshot& snapshot) {
    std::vector<std::string> paths;
    for (const std::string& port : enabledPorts(snapshot)) {
        for (const SrClassId srClass : Msrp::bothClasses) paths.push_back(domainPath(port, srClass));
    }
    return paths;
}

std::string setCommand(std::string_view record, std::string_view field, std::string_view value) {
    return concat("msrpctl set ", record, ' ', field, ' ', value);
}

std::string className(SrClassId srClass) { return std::string{"class "} + classLetter(srClass); }

std::string kbpsText(U64 kbps) { return std::to_string(kbps) + " kbps"; }

std::string PortJudge::thisBridge() const {
    const auto address = EthAddr::parse(textOf(at(snapshot_.record("bridging/config"), {"bridgeMac"})));
    const std::string name = address ? names_.of(address->number()) : std::string{};
    return name.empty() ? "this bridge" : "this bridge, " + name;
}

bool PortJudge::isThisBridge(U64 id) const {
    const auto address = EthAddr::parse(textOf(at(snapshot_.record("bridging/config"), {"bridgeMac"})));
    // The priority of our own id depends on the spanning tree; the address is ours alone.
    return address && address->number() != 0 && bridgeAddress(id) == address->number();
}

std::string PortJudge::peerAt(const std::string& port) const {
    const std::string name = names_.behind(port);
    return name.empty() ? "the peer at " + port : concat(name, ", the neighbour at ", port);
}

Verdict PortJudge::facts(const std::string& port, const AskedStream& asked) const {
    Verdict v;
    Inputs& in = v.inputs;
    in.link = known<Interface::LinkStatus>(at(physical(snapshot_, port), {"linkStatus"}));
    in.speed = known<Interface::Speed>(at(physical(snapshot_, port), {"speedEnum"}));
    in.portState = known<Msrp::MsrpPortState>(at(statusOf(snapshot_, port), {"portState"}));
    in.state = classState(snapshot_, port, asked.srClass);
    in.priority = classPriority(snapshot_, asked.srClass);
    if (const auto peer = peerDomain(snapshot_, port, asked.srClass)) in.peerPriority = peer->priority;
    in.vlan = asked.vlan;
    in.vlanState = Msrp::judgeVlan(vlanFacts(snapshot_, port, asked.vlan)).why;
    in.share = admissionRequest(snapshot_, port, asked.srClass, asked.kbps);
    const Value& groups = snapshot_.record("linux/groups");
    in.tableUsed = known<U64>(at(groups, {"tableUsed"}));
    in.tableSize = known<U64>(at(groups, {"tableSize"}));
    if (in.tableSize.value_or(0) != 0) in.tableRoom = known<U64>(at(groups, {"tableRoom"}));
    in.kernel = textOf(at(snapshot_.record("switch/refusals"), {"port", port, "why"}));
    return v;
}

Verdict PortJudge::own(const std::string& port, const AskedStream& asked, Rule rule, std::string what,
                       std::string why) const {
    Verdict v = facts(port, asked);
    v.rule = rule;
    v.what = std::move(what);
    v.why = std::move(why);
    v.whose = Whose::bridge;
    v.who = thisBridge();
    return v;
}

std::optional<Verdict> PortJudge::away(const std::string& port, const AskedStream& asked) const {
    const Value& status = statusOf(snapshot_, port);
    const auto say = [&](Rule rule, std::string what, std::string why, std::vector<Mend> mends) {
        Verdict v = own(port, asked, rule, std::move(what), std::move(why));
        v.mends = std::move(mends);
        return v;
    };
    const std::string bridge = bridgeOf(snapshot_);
    const Value& time = snapshot_.record("switch/time");
    if (!chosen(at(snapshot_.record("msrp/config"), {"intfEnable"}), port)) {
        return say(Rule::notEnabled, "MSRP is not enabled on the port", "",
                   {{setCommand("msrp/config", "intfEnable/" + port, "true")}});
    }
    if (at(snapshot_.record("interface/status/eth/intf"), {"intf", port}).isNull()) {
        return say(Rule::noInterface, "no interface",
                   concat("MSRP is enabled on ", port, ", and there is no interface of that name"),
                   {{"make the interface, or name the right one"},
                    {setCommand("msrp/config", "intfEnable/" + port, "null")}});
    }
    if (textOf(at(physical(snapshot_, port), {"linkStatus"})) != "up") {
        Verdict v = say(Rule::linkDown, "link down", "",
                        {{"look at the cable and at the far end"},
                         {concat("ip link set ", port, " up, if it was taken down here")}});
        v.whose = Whose::peer;
        v.who = concat("the cable, or ", peerAt(port));
        return v;
    }
    if (!bridge.empty() && at(snapshot_.record("bridging/config"), {"switchIntfConfig", port}).isNull()) {
        return say(Rule::notInBridge, "not a port of bridge " + bridge, "",
                   {{concat("ip link set ", port, " master ", bridge)}});
    }
    if (textOf(at(status, {"portState"})) != "Forwarding") {
        return say(Rule::treeBlocks, "blocked by the spanning tree",
                   "streams follow the tree; what is behind the port is reached on another way, or by nobody",
                   {{"nothing, where the network has a loop; else the tree's costs and priorities, or the "
                     "port that is down on the way that the tree prefers"}});
    }
    if (isTrue(at(time, {"asked"})) && !isTrue(at(time, {"port", port, "capable"}))) {
        const std::string state = textOf(at(time, {"port", port, "state"}));
        Verdict v =
            say(Rule::noCommonTime, "no common time",
                concat("the port keeps no common time with its peer (IEEE 802.1AS): ",
                       state.empty() ? "its clock is not told of" : state),
                {{"gPTP on both ends of the link, in ptp4l here (-i " + port + ") and at the peer"},
                 {"no gptp in linux/config, from the next start, where streams may go without common time"}});
        v.whose = Whose::peer;
        v.who = concat(peerAt(port), ", or the ptp4l of this bridge");
        return v;
    }
    return std::nullopt;
}

std::optional<Verdict> PortJudge::inactive(const std::string& port, const AskedStream& asked) const {
    if (auto whole = away(port, asked)) return whole;
    if (!isTrue(at(snapshot_.record("msrp/cliConfig"), {classField(asked.srClass, "Supported")}))) {
        Verdict v = own(port, asked, Rule::classOff, className(asked.srClass) + " is switched off", "");
        v.mends = {{setCommand("msrp/cliConfig", classField(asked.srClass, "Supported"), "true")}};
        return v;
    }
    switch (classState(snapshot_, port, asked.srClass)) {
        case Msrp::SrClassState::NotSupported: {
            Verdict v = own(port, asked, Rule::notRunning, "MSRP does not run on the port yet",
                            "it is starting over, or this agent is in standby");
            v.mends = {{"nothing, when it is starting"}};
            return v;
        }
        case Msrp::SrClassState::WaitingForPeer:
            return waiting(port, asked);
        default:
            return std::nullopt;
    }
}

Verdict PortJudge::waiting(const std::string& port, const AskedStream& asked) const {
    const std::string name = className(asked.srClass);
    const U64 frames = numberOf(at(snapshot_.record("mrp/status"), {"intf", port, "rxPdus"}));
    // Counters can be cleared; what the peer has declared is there nevertheless.
    const bool declares = std::ranges::any_of(Msrp::bothClasses, [&](SrClassId srClass) {
        return peerDomain(snapshot_, port, srClass).has_value();
    });
    const bool speaks = frames != 0 || declares;
    const std::string heard = frames == 0   ? "Domains of its have"
                              : frames == 1 ? "one frame of MSRP has"
                                            : std::to_string(frames) + " frames of MSRP have";
    Verdict v = own(port, asked, Rule::waitingForPeer,
                    speaks ? "the peer does not offer " + name : "the peer does not speak MSRP",
                    speaks ? concat(heard, " come in, and none that still counts declares a Domain of ", name)
                           : "not one frame of MSRP has come in on the port since its counters began");
    v.whose = Whose::peer;
    v.who = peerAt(port);
    v.mends = {
        speaks ? Mend{concat(name, " at the peer, with priority ", classPriority(snapshot_, asked.srClass))}
               : Mend{"MSRP (stream reservation, SRP) at the peer; where it has none, another peer"}};
    return v;
}

Verdict PortJudge::boundary(const std::string& port, const AskedStream& asked) const {
    const std::string name = className(asked.srClass);
    const U64 priority = classPriority(snapshot_, asked.srClass);
    const auto peer = peerDomain(snapshot_, port, asked.srClass);
    Verdict v = own(port, asked, Rule::boundary, "outside the domain of " + name,
                    concat("this bridge gives ", name, " priority ", priority, ", the peer ",
                           peer ? concat("gives it priority ", peer->priority) : "another one",
                           ": its frames would lose their queue on the way"));
    v.code = Msrp::number(TalkerFailureCode::egressPortNotAvbCapable);
    if (peer) v.since = peer->age;
    v.whose = Whose::peer;
    v.who = concat(peerAt(port), ", or this bridge: they have to agree");
    v.mends = {{concat("priority ", priority, " for ", name, " at the peer")}};
    // A talker keeps its priority: to another one here a stream that is there would be of no class any more.
    constexpr U64 highest = 7;
    if (asked.id == 0 && peer && peer->priority <= highest)
        v.mends.push_back({concat("priority ", peer->priority, " at every bridge and talker of the domain")});
    return v;
}

Mend PortJudge::membership(const std::string& port, U64 vlan) const {
    const std::string bridge = bridgeOf(snapshot_);
    if (bridge.empty())
        return {setCommand("bridging/config", concat("vlanConfig/", vlan, "/intf/", port),
                           "'{\"tagged\":true}'")};
    return {concat("bridge vlan add dev ", port, " vid ", vlan, " (while ", bridge,
                   " does not filter VLANs: srVlan in linux/config)")};
}

Verdict PortJudge::vlan(const std::string& port, const AskedStream& asked) const {
    using Why = Msrp::VlanVerdict::Why;
    const auto verdict = Msrp::judgeVlan(vlanFacts(snapshot_, port, asked.vlan));
    const std::string id = std::to_string(asked.vlan);
    const std::string tree = textOf(at(snapshot_.record("bridging/topology/config"), {"vlanTopology", id}));
    const auto say = [&]() -> Verdict {
        switch (verdict.why) {
            case Why::notConfigured:
                return own(
                    port, asked, Rule::vlanNotConfigured, concat("no VLAN ", id, " on this switch"),
                    concat("the stream's frames carry VLAN ", id, ", which no port of the switch has"));
            case Why::noMember:
                return own(
                    port, asked, Rule::vlanNoMember, concat("not in VLAN ", id),
                    concat("the stream's frames carry VLAN ", id, ", and the port is no member of it"));
            case Why::blocked:
                return own(
                    port, asked, Rule::vlanBlocked, concat("VLAN ", id, " is blocked"),
                    concat("the spanning tree that carries VLAN ", id,
                           tree.empty() ? " is not known" : " (" + tree + ") does not forward on the port"));
            default:
                return own(port, asked, Rule::vlanUntagged, concat("VLAN ", id, " goes out without a tag"),
                           "the priority of its frames is in the tag, so streams need it");
        }
    };
    Verdict v = say();
    v.code = Msrp::number(verdict.code);
    if (verdict.why == Why::blocked) {
        v.mends = {{"nothing, where the network has a loop; else the tree's costs and priorities"}};
        return v;
    }
    v.mends = {membership(port, asked.vlan)};
    if (verdict.why == Why::noMember && chosen(at(snapshot_.record("mvrp/config"), {"intfEnable"}), port))
        v.mends.push_back({concat("a listener or bridge there that asks for VLAN ", id, " by MVRP")});
    const U64 usual = streamVlan(snapshot_, port);
    if (verdict.why != Why::untagged && usual != asked.vlan)
        v.mends.push_back({concat("VLAN ", usual, " for the stream, at its talker", afterWithdrawal(asked),
                                  ": that is what the port declares")});
    return v;
}

std::optional<Verdict> PortJudge::egress(const std::string& port, const AskedStream& asked) const {
    const Msrp::EgressFacts looked = egressFacts(snapshot_, port, asked.srClass, asked.vlan, asked.kbps);
    switch (Msrp::judgeEgress(looked)) {
        case TalkerFailureCode::noFailure:
            return std::nullopt;
        case TalkerFailureCode::egressPortNotAvbCapable:
            return boundary(port, asked);
        case TalkerFailureCode::insufficientResources: {
            Verdict v = own(port, asked, Rule::cannotShape, "its queues cannot be shaped", "");
            v.code = Msrp::number(TalkerFailureCode::insufficientResources);
            v.why = "the port cannot give streams their bandwidth: " + v.inputs.kernel;
            v.whose = Whose::kernel;
            v.who = "the kernel of this machine, or what is set up in it";
            if (halfDuplex(v)) {
                v.mends = {{fullDuplex}};
                return v;
            }
            v.mends = {{"take that reason away; msrpctl audit --repair tries again at once"}};
            // Without a speed there is nothing to reserve, shaped or not.
            if (v.inputs.share.link != 0)
                v.mends.push_back(
                    {"\"shaping\": \"none\" in linux/config reserves without shaping, from the next start"});
            return v;
        }
        default:
            return vlan(port, asked);
    }
}

std::optional<Verdict> PortJudge::ingress(const std::string& port, const AskedStream& asked,
                                          U64 maxFrameSize) const {
    const U64 limit = numberOf(at(snapshot_.record("msrp/cliConfig"), {"maxFrameSizeLimit"}));
    const Msrp::IngressFacts looked{.state = classState(snapshot_, port, asked.srClass),
                                    .vlan = vlanFacts(snapshot_, port, asked.vlan),
                                    .maxFrameSize = static_cast<Msrp::U16>(maxFrameSize),
                                    .maxFrameSizeLimit = static_cast<Msrp::U16>(limit)};
    switch (const TalkerFailureCode code = Msrp::judgeIngress(looked)) {
        case TalkerFailureCode::noFailure:
            return std::nullopt;
        case TalkerFailureCode::egressPortNotAvbCapable:
            return boundary(port, asked);
        case TalkerFailureCode::maxFrameSizeTooLarge: {
            constexpr U64 ethernet = 1500;
            Verdict v = own(
                port, asked, Rule::frameTooLarge, codeText(Msrp::number(code)),
                concat("its frames have up to ", maxFrameSize, " octets, and maxFrameSizeLimit is ", limit));
            v.code = Msrp::number(code);
            v.whose = Whose::talker;
            v.who = "the talker, or the limit of this bridge";
            v.mends = {{concat("smaller frames, more of them in an interval", afterWithdrawal(asked))}};
            if (maxFrameSize <= ethernet)
                v.mends.push_back({concat("maxFrameSizeLimit ", maxFrameSize, " or more"),
                                   "msrp/cliConfig",
                                   {{"maxFrameSizeLimit", maxFrameSize}}});
            return v;
        }
        default:
            return vlan(port, asked);
    }
}

std::optional<Verdict> PortJudge::bandwidth(const std::string& port, const AskedStream& asked) const {
    const Msrp::AdmissionRequest r = admissionRequest(snapshot_, port, asked.srClass, asked.kbps);
    const TalkerFailureCode code = Msrp::admit(r);
    if (code == TalkerFailureCode::noFailure) return std::nullopt;
    const std::string name = className(asked.srClass);
    const std::string speed = textOf(at(physical(snapshot_, port), {"speedEnum"}));
    const bool both = code == TalkerFailureCode::insufficientBandwidth;
    const U64 own =
        both || r.srClass == SrClassId::SrClassB ? Msrp::allowedTotal(r) : r.percentA * r.link / 100;
    std::string why;
    if (r.link == 0) {
        why = concat("no stream is admitted on a link of ", speed.empty() ? "unknown" : speed, " speed");
    } else {
        why = both ? concat("both classes together may have ", r.percentA + r.percentB)
                   : concat(name, " may have ", r.srClass == SrClassId::SrClassA ? r.percentA : r.percentB);
        why += concat(" per cent of the ", speed, " link, ", kbpsText(own), "; ",
                      both ? r.allocatedA + r.allocatedB
                           : (r.srClass == SrClassId::SrClassA ? r.allocatedA : r.allocatedB),
                      " are reserved, ", r.needed, " more are needed, ",
                      both ? r.allocatedA + r.allocatedB + r.needed - own : Msrp::missingBandwidth(r),
                      " are missing");
    }
    // Then no end of a class B stream helps.
    const bool ownShort =
        r.srClass == SrClassId::SrClassA && r.allocatedA + r.needed > Msrp::allowedForClass(r);
    if (both && ownShort && r.link != 0 && (r.percentB != 0 || r.allocatedB != 0))
        why += concat("; of these ", name, " may have ", r.percentA, " per cent, ",
                      kbpsText(Msrp::allowedForClass(r)), ", and has ", r.allocatedA, ": for it ",
                      r.allocatedA + r.needed - Msrp::allowedForClass(r), " are missing");
    Verdict v = PortJudge::own(port, asked, both ? Rule::bandwidth : Rule::classBandwidth,
                               codeText(Msrp::number(code)), std::move(why));
    v.code = Msrp::number(code);
    v.mends = bandwidthMends(r);
    if (r.link == 0 && halfDuplex(v)) {
        v.mends.insert(v.mends.begin(), {fullDuplex});
    } else if (r.link == 0 && (speed.empty() || speed == "unknown")) {
        v.mends.insert(
            v.mends.begin(),
            {concat(
                "tell the speed that the kernel does not know, in the configuration: \"interface/status/eth/"
                "phy/all\": {\"intfStatus\": {\"",
                port, "\": {\"speedEnum\": \"1G\"}}}")});
    }
    if (holders(v, port, asked, ownShort || !both) >= Msrp::missingBandwidth(r)) {
        v.mends.push_back({concat("end streams of ", kbpsText(Msrp::missingBandwidth(r)),
                                  " on the port, of those that hold it")});
    }
    return v;
}

U64 PortJudge::holders(Verdict& v, const std::string& port, const AskedStream& asked, bool ofClass) const {
    std::vector<PortStream> holding = portStreams(snapshot_, port);
    std::erase_if(holding, [&](const PortStream& s) {
        return !s.reserved || s.kbps == 0 || (ofClass && s.srClass != asked.srClass);
    });
    std::ranges::stable_sort(holding, std::ranges::greater{}, &PortStream::kbps);
    U64 together = 0;
    for (const PortStream& s : holding) {
        together += s.kbps;
        if (v.holders.size() < maxHolders) {
            v.holders.push_back({s.id, s.kbps});
        } else {
            ++v.moreHolders;
            v.moreKbps += s.kbps;
        }
    }
    return together;
}

std::optional<Verdict> PortJudge::group(const std::string& port, const AskedStream& asked) const {
    Verdict v = facts(port, asked);
    if (v.inputs.tableRoom != U64{0}) return std::nullopt;
    refuseGroup(v, "the bridge's multicast table is full");
    v.what = codeText(v.code);
    v.why = concat(v.inputs.kernel, ": ", v.inputs.tableUsed.value_or(0), " groups are in a table for ",
                   v.inputs.tableSize.value_or(0), ", of which some room is left to others");
    return v;
}

void PortJudge::refuseGroup(Verdict& v, const std::string& why) const {
    const U64 used = v.inputs.tableUsed.value_or(0);
    const U64 size = v.inputs.tableSize.value_or(0);
    v.inputs.kernel = why;
    v.rule = Rule::noGroup;
    v.code = Msrp::number(TalkerFailureCode::cannotStoreAddress);
    v.why = "the kernel has not taken the stream's forwarding entry: " +
            (why.empty() ? "it does not say why" : why);
    if (size != 0) v.why += concat("; ", used, " groups are in a table for ", size);
    v.whose = Whose::kernel;
    v.who = "the kernel of this machine";
    if (why.find("full") != std::string::npos && size != 0) {
        const std::string bridge = bridgeOf(snapshot_);
        v.mends = {
            {.text = concat("groupTableSize ", 2 * size,
                            " in linux/config, from the next start; at once: ip link set ",
                            bridge.empty() ? "BRIDGE" : bridge, " type bridge mcast_hash_max ", 2 * size),
             .record = "linux/config",
             .set = {{"groupTableSize", 2 * size}}},
            {"fewer groups in the bridge (bridge mdb show)"}};
    } else {
        v.mends = {{"take that reason away; msrpctl audit --repair tries again at once"}};
    }
}

}  // namespace Show
