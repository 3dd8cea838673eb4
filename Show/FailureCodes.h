/// The reservation failure codes (IEEE 802.1Q table 35-6) for people: what each says, who can do something
/// about it, and what, where the bridge that found it is somebody else's.
#pragma once

#include "Msrp/types/Enums.h"

#include <string>
#include <string_view>

namespace Show {

struct FailureText {
    Msrp::TalkerFailureCode code;
    std::string_view why;   ///< what the bridge that gives it has found
    std::string_view mend;  ///< what is to be done there, or by the talker
};

/// All there are but `noFailure`, in the order of their numbers.
inline constexpr auto failureTexts = [] {
    using enum Msrp::TalkerFailureCode;
    return std::to_array<FailureText>({
        {insufficientBandwidth,
         "a port on the way has no bandwidth left for streams of both classes together",
         "larger shares or a faster link there, or fewer streams over that port"},
        {insufficientResources, "the bridge cannot carry another stream, or cannot shape the port",
         "look there what is used up or what its ports refuse; fewer streams through it"},
        {insufficientBandwidthForClass, "a port on the way has no bandwidth left for the stream's class",
         "a larger share of the class or a faster link there, the other class, or fewer streams of it"},
        {streamIdInUse, "another talker has declared the same stream id",
         "give one of the two talkers another unique id"},
        {destinationAddressInUse, "another stream has the same destination address",
         "give this stream another address, or end the other one"},
        {preempted, "a stream of higher rank has taken its bandwidth",
         "bandwidth for both, or the higher rank (emergency) for this one"},
        {latencyChanged, "the latency told for the stream has changed while it was declared",
         "withdraw the stream at its talker and declare it anew"},
        {egressPortNotAvbCapable, "the stream has to cross a port outside the domain of its class",
         "offer the class with the same priority on both ends of that link"},
        {useDifferentAddress, "the bridge cannot forward this destination address",
         "give the stream another destination address"},
        {outOfMsrpResources, "the bridge has no room for another declaration",
         "fewer streams through it, or more room for them there"},
        {outOfMmrpResources, "the bridge has no room for another registered address",
         "fewer group addresses in that bridge"},
        {cannotStoreAddress, "the bridge's forwarding table has no room for the destination address",
         "a larger table there, or fewer groups in it"},
        {notAnSrClassPriority, "the stream's priority is none of an SR class there",
         "the same priorities for the classes on all bridges and at the talker"},
        {maxFrameSizeTooLarge, "the stream's frames are larger than the bridge or a link lets pass",
         "smaller frames, more of them in an interval; or a higher limit there"},
        {fanInPortsReached, "streams come into the bridge on as many ports as it can take",
         "talkers on fewer ports of that bridge"},
        {firstValueChanged, "what the talker declares of the stream has changed while it was declared",
         "withdraw the stream at its talker and declare it anew"},
        {vlanBlocked, "the stream's VLAN does not get out of a port there",
         "put that port into the VLAN, or use one in which it is"},
        {vlanTaggingDisabled, "a port there sends the stream's VLAN without a tag, and so without priority",
         "make the port a tagged member of the VLAN"},
        {srClassPriorityMismatch, "the stream's priority is not that of its class there",
         "the same priorities for the classes on all bridges and at the talker"},
    });
}();

/// One for any octet, also for those that name nothing known.
FailureText failureText(Msrp::U64 code);
/// The code's name: "insufficient bandwidth"; "failure code 77" for an unknown one.
std::string codeText(Msrp::U64 code);

}  // namespace Show
