/// What was decided about a stream at one port, and all that people need to do something about it: the rule,
/// what it looked at, since when, whose matter it is, and what would mend it.
#pragma once

#include "Msrp/bandwidth/Admission.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Show/Page.h"
#include "Show/WaitReport.h"
#include "State/Codec.h"
#include "Switch/Interface.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Show {

/// The rule that decided.
enum class Rule : Msrp::U8 {
    // It goes well.
    carried,     ///< reserved, and forwarded
    advertised,  ///< the talker's port: its declaration is taken, and passed on
    fits,        ///< would be admitted
    talkerPort,  ///< nothing to decide where the talker itself is
    // The port, whatever the stream
    noInterface,
    linkDown,
    notInBridge,
    treeBlocks,
    noCommonTime,
    notEnabled,
    classOff,
    notRunning,
    waitingForPeer,
    // What the port's side or the talker's declaration was judged by
    boundary,
    vlanNotConfigured,
    vlanNoMember,
    vlanBlocked,
    vlanUntagged,
    cannotShape,
    bandwidth,
    classBandwidth,
    noGroup,
    frameTooLarge,
    addressInUse,
    latencyChanged,
    firstValueChanged,
    otherCode,  ///< a code of this bridge that none of these accounts for
    gone,       ///< the reason has gone, and nobody has looked again yet
    upstream,   ///< a bridge before this one has found the failure
    // What was not even taken
    vlanOutOfRange,
    notMulticast,
    notForStreams,
    otherTalkerPort,
    noClassPriority,
    classAway,
    listenerAtTalker,
    // Nobody has asked, or not yet been answered
    noTalker,
    notDeclared,
    noListener,
    listenerFailed,
    underWay,
    // What was reserved and is not carried out
    notForwarded,
    notOffloaded,
};
constexpr auto ruleNames =
    std::to_array<State::EnumName<Rule>>({{Rule::carried, "carried"},
                                          {Rule::advertised, "advertised"},
                                          {Rule::fits, "fits"},
                                          {Rule::talkerPort, "talkerPort"},
                                          {Rule::noInterface, "noInterface"},
                                          {Rule::linkDown, "linkDown"},
                                          {Rule::notInBridge, "notInBridge"},
                                          {Rule::treeBlocks, "treeBlocks"},
                                          {Rule::noCommonTime, "noCommonTime"},
                                          {Rule::notEnabled, "notEnabled"},
                                          {Rule::classOff, "classOff"},
                                          {Rule::notRunning, "notRunning"},
                                          {Rule::waitingForPeer, "waitingForPeer"},
                                          {Rule::boundary, "boundary"},
                                          {Rule::vlanNotConfigured, "vlanNotConfigured"},
                                          {Rule::vlanNoMember, "vlanNoMember"},
                                          {Rule::vlanBlocked, "vlanBlocked"},
                                          {Rule::vlanUntagged, "vlanUntagged"},
                                          {Rule::cannotShape, "cannotShape"},
                                          {Rule::bandwidth, "bandwidth"},
                                          {Rule::classBandwidth, "classBandwidth"},
                                          {Rule::noGroup, "noGroup"},
                                          {Rule::frameTooLarge, "frameTooLarge"},
                                          {Rule::addressInUse, "addressInUse"},
                                          {Rule::latencyChanged, "latencyChanged"},
                                          {Rule::firstValueChanged, "firstValueChanged"},
                                          {Rule::otherCode, "otherCode"},
                                          {Rule::gone, "gone"},
                                          {Rule::upstream, "upstream"},
                                          {Rule::vlanOutOfRange, "vlanOutOfRange"},
                                          {Rule::notMulticast, "notMulticast"},
                                          {Rule::notForStreams, "notForStreams"},
                                          {Rule::otherTalkerPort, "otherTalkerPort"},
                                          {Rule::noClassPriority, "noClassPriority"},
                                          {Rule::classAway, "classAway"},
                                          {Rule::listenerAtTalker, "listenerAtTalker"},
                                          {Rule::noTalker, "noTalker"},
                                          {Rule::notDeclared, "notDeclared"},
                                          {Rule::noListener, "noListener"},
                                          {Rule::listenerFailed, "listenerFailed"},
                                          {Rule::underWay, "underWay"},
                                          {Rule::notForwarded, "notForwarded"},
                                          {Rule::notOffloaded, "notOffloaded"}});
constexpr const auto& enumNames(Rule) { return ruleNames; }

/// Whose matter it is.
enum class Whose : Msrp::U8 { nobody, bridge, peer, talker, listener, kernel };
constexpr auto whoseNames = std::to_array<State::EnumName<Whose>>({{Whose::nobody, "nobody"},
                                                                   {Whose::bridge, "bridge"},
                                                                   {Whose::peer, "peer"},
                                                                   {Whose::talker, "talker"},
                                                                   {Whose::listener, "listener"},
                                                                   {Whose::kernel, "kernel"}});
constexpr const auto& enumNames(Whose) { return whoseNames; }

/// One thing that would mend it, in words; and, where it is that, fields of a record with the values that
/// they need.
struct Mend {
    std::string text;
    std::string record{};
    std::vector<std::pair<std::string, Msrp::U64>> set{};
};

/// A stream that has what is missing.
struct Holder {
    Msrp::U64 id = 0;
    Msrp::U64 kbps = 0;
};

/// What there was to look at, whatever was decided by; nothing for what is not known there.
struct Inputs {
    std::optional<Interface::LinkStatus> link{};
    std::optional<Interface::Speed> speed{};
    std::optional<Msrp::MsrpPortState> portState{};
    Msrp::SrClassState state = Msrp::SrClassState::NotSupported;
    Msrp::U64 priority = 0;
    std::optional<Msrp::U64> peerPriority{};
    Msrp::U64 vlan = 0;
    Msrp::VlanVerdict::Why vlanState{};
    Msrp::AdmissionRequest share{};
    std::optional<Msrp::U64> tableUsed{};
    std::optional<Msrp::U64> tableSize{};
    std::optional<Msrp::U64> tableRoom{};
    std::string kernel{};  ///< its refusal, in its own words
};

struct Verdict {
    Rule rule = Rule::carried;
    Msrp::U64 code = 0;  ///< failure code that is declared for it; 0: none
    std::string what{};  ///< the rule's outcome in a few words
    std::string why{};   ///< the rule with its inputs, a sentence
    Whose whose = Whose::nobody;
    std::string who{};                  ///< by name
    std::optional<Msrp::U64> bridge{};  ///< id of the one that found the failure
    double since = -1.0;                ///< seconds; negative: not known
    std::vector<Mend> mends{};
    std::vector<Holder> holders{};  ///< the largest first, `maxHolders` of them
    Msrp::U64 moreHolders = 0;      ///< how many more there are, and what they have together
    Msrp::U64 moreKbps = 0;
    std::optional<WaitReport> wait{};
    Inputs inputs{};
};
inline constexpr std::size_t maxHolders = 5;

/// "insufficient bandwidth (code 1)"
std::string outcomeText(const Verdict& verdict, const Page& page);
/// The lines below a verdict's first one; each is indented and ends with a newline.
std::string verdictLines(const Verdict& verdict);
/// Whether nothing is in the way.
bool isGood(const Verdict& verdict);

/// What would let the request in: the smallest shares that do, both together at most 100 per cent, and the
/// slowest link that does, or both together.  Nothing for what is let in already.
std::vector<Mend> bandwidthMends(const Msrp::AdmissionRequest& request);

}  // namespace Show

/// Of one shape, whatever the rule.
template <>
struct State::Codec<Show::Verdict> {
    static Value encode(const Show::Verdict& verdict);
    static Schema schema();
};
/// By stream.
template <>
struct State::Codec<std::vector<Show::Holder>> {
    static Value encode(const std::vector<Show::Holder>& holders);
    static Schema schema();
};
