/// What a port must do when its state for an SR class changes.
#pragma once

#include "Msrp/types/Enums.h"

#include <array>

namespace Msrp {

enum class SrClassAction : U8 {
    none,             ///< the state does not change
    declareDomain,    ///< declare the Domain on the port
    withdrawDomain,   ///< withdraw it
    registerStreams,  ///< bring the class's streams onto the port
    failStreams,  ///< the port has become a boundary: its streams fail with "egress port is not AVB capable"
    removeStreams,      ///< take the class's streams off the port
    removeAndWithdraw,  ///< take the streams off, then withdraw the Domain
    invalid,            ///< never happens
};

/// Rows are old states, columns new ones, in the order of the enumeration.
inline constexpr auto srClassTransitions = [] {
    using enum SrClassAction;
    return std::array<std::array<SrClassAction, 4>, 4>{{
        //                    NotSupported       WaitingForPeer Boundary         Core
        /* NotSupported   */ {{none, declareDomain, invalid, invalid}},
        /* WaitingForPeer */ {{withdrawDomain, none, registerStreams, registerStreams}},
        /* Boundary       */ {{removeAndWithdraw, removeStreams, none, registerStreams}},
        /* Core           */ {{removeAndWithdraw, removeStreams, failStreams, none}},
    }};
}();

constexpr SrClassAction srClassTransition(SrClassState from, SrClassState to) {
    if (from > SrClassState::Core || to > SrClassState::Core) return SrClassAction::invalid;
    return srClassTransitions[static_cast<std::size_t>(from)][static_cast<std::size_t>(to)];
}

}  // namespace Msrp
