/// The agent's events in the system log.
#pragma once

#include "Runtime/SystemLog.h"

namespace Msrp {

inline constexpr std::string_view advertiseExplanation =
    "MSRP Talker Advertise message was transmitted/received on an interface";
inline constexpr std::string_view failExplanation =
    "MSRP Talker Fail message was transmitted/received on an interface";
inline constexpr std::string_view listenerExplanation =
    "MSRP Listener message was transmitted/received on an interface";
inline constexpr std::string_view domainExplanation =
    "MSRP Domain message was transmitted/received on an interface";

/// All events are informational and ask for nothing.
constexpr Runtime::LogEvent msrpEvent(std::string_view name, std::string_view format,
                                      std::string_view explanation) {
    return {.name = name,
            .severity = 6,
            .format = format,
            .explanation = explanation,
            .recommendedAction = Runtime::noActionRequired,
            .rateInterval = 0.0,
            .rateLimit = 1.0,
            .flags = 0};
}

inline constexpr auto MSRP_TALKER_ADV_JOIN = msrpEvent(
    "MSRP_TALKER_ADV_JOIN", "TalkerAdv Join %s on %s: StreamId 0x%s, failureCode %d", advertiseExplanation);
inline constexpr auto MSRP_TALKER_FAIL_JOIN = msrpEvent(
    "MSRP_TALKER_FAIL_JOIN", "TalkerFail Join %s on %s: StreamId 0x%s, failureCode %d, failedBridgeId 0x%s",
    failExplanation);
inline constexpr auto MSRP_LISTENER_JOIN =
    msrpEvent("MSRP_LISTENER_JOIN", "Listener Join %s on %s: StreamId 0x%s, state %d", listenerExplanation);
inline constexpr auto MSRP_DOMAIN_JOIN = msrpEvent(
    "MSRP_DOMAIN_JOIN", "Domain Join %s on %s: Class: %d, Priority: %d, SrVID: %d", domainExplanation);
inline constexpr auto MSRP_TALKER_ADV_LV =
    msrpEvent("MSRP_TALKER_ADV_LV", "TalkerAdv Lv %s on %s: StreamId 0x%s", advertiseExplanation);
inline constexpr auto MSRP_TALKER_FAIL_LV = msrpEvent(
    "MSRP_TALKER_FAIL_LV", "TalkerFail Lv %s on %s: StreamId 0x%s, failureCode %d", failExplanation);
inline constexpr auto MSRP_LISTENER_LV =
    msrpEvent("MSRP_LISTENER_LV", "Listener Lv %s on %s: StreamId 0x%s, state %d", listenerExplanation);
inline constexpr auto MSRP_DOMAIN_LV =
    msrpEvent("MSRP_DOMAIN_LV", "Domain Lv %s on %s: Class: %d, Priority: %d, SrVID: %d", domainExplanation);
inline constexpr auto MSRP_BW_ALLOC_FAIL = msrpEvent(
    "MSRP_BW_ALLOC_FAIL", "Bandwidth %d kbps allocation failed for listener on %s and streamId 0x%s",
    "MSRP Bandwidth could not be allocated for a listener");
inline constexpr auto MSRP_BW_ALLOC_SUCCESS = msrpEvent(
    "MSRP_BW_ALLOC_SUCCESS", "Bandwidth %d kbps successfully allocated for listener on %s and streamId 0x%s",
    "MSRP Bandwidth was allocated for a listener");
inline constexpr auto MSRP_BW_DEALLOC =
    msrpEvent("MSRP_BW_DEALLOC", "Bandwidth %d kbps deallocated for listener on %s and streamId 0x%s",
              "MSRP Bandwidth was deallocated for a listener");
inline constexpr auto MSRP_SR_CLASS_TRANSITION =
    msrpEvent("MSRP_SR_CLASS_TRANSITION", "MSRP %d state on %s changed from %d to %d",
              "MSRP SR Class state transition occurred on an interface");
inline constexpr auto MSRP_ERROR = msrpEvent("MSRP_ERROR", "%s", "MSRP error occurred");
inline constexpr auto MSRP_NOTIF = msrpEvent("MSRP_NOTIF", "%s", "MSRP notification");

}  // namespace Msrp
