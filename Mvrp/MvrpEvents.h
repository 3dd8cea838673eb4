/// MVRP's events in the system log.
#pragma once

#include "Runtime/SystemLog.h"

namespace Mvrp {

constexpr Runtime::LogEvent mvrpEvent(std::string_view name, int severity, std::string_view format,
                                      std::string_view explanation, std::string_view action) {
    return {.name = name,
            .severity = severity,
            .format = format,
            .explanation = explanation,
            .recommendedAction = action};
}

inline constexpr auto MVRP_JOIN =
    mvrpEvent("MVRP_JOIN", 6, "VLAN %d is asked for on %s", "The peer of a port has joined a VLAN",
              Runtime::noActionRequired);
inline constexpr auto MVRP_LV = mvrpEvent("MVRP_LV", 6, "VLAN %d is no longer asked for on %s",
                                          "The peer of a port has left a VLAN", Runtime::noActionRequired);
inline constexpr auto MVRP_REFUSED =
    mvrpEvent("MVRP_REFUSED", 4, "VLAN %d is asked for on %s, where it is not allowed",
              "The peer of a port asks for a VLAN that the configuration does not allow there",
              "Add the VLAN to the port's entry of mvrp/config/allowed if the peer may have it.");
inline constexpr auto MVRP_ERROR =
    mvrpEvent("MVRP_ERROR", 4, "%s", "MVRP error occurred", Runtime::noActionRequired);

}  // namespace Mvrp
