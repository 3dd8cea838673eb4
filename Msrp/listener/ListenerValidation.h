/// What becomes of a listener's declaration: ordered checks on what was received and what is known.
#pragma once

#include "Msrp/types/Enums.h"
#include "Switch/IntfId.h"

#include <string>

namespace Msrp {

/// What the checks look at.
struct ListenerFacts {
    IntfId intf;
    U64 streamId = 0;
    ListenerState declared = ListenerState::Ignore;
    bool portActive = false;  ///< some class is core or boundary there
    bool known = false;       ///< the stream has a record; what follows is of it
    IntfId ingress;           ///< the talker's port; none while no talker is known
    SrClassId srClass{};
    SrClassState classState = SrClassState::NotSupported;  ///< of the stream's class on the port
};

struct ListenerVerdict {
    enum class Kind : U8 {
        nothing,   ///< it asks for nothing
        inactive,  ///< discarded, and counted each time
        unknown,   ///< kept: the first that is heard of the stream
        early,     ///< kept until a talker comes
        refused,   ///< discarded; a repetition is told, but not counted
        asks,      ///< taken, to be answered with `effective`
    };
    Kind kind = Kind::nothing;
    ListenerState effective = ListenerState::Ignore;
    std::string discard{};  ///< why, where it is discarded
};

ListenerVerdict judgeListenerJoin(const ListenerFacts& facts);

/// What the listener's declaration counts for on a port in that state: nothing gets through a boundary
/// (IEEE 802.1Q 35.2.4.4.1).
constexpr ListenerState effectiveListener(ListenerState declared, SrClassState classState) {
    return classState == SrClassState::Boundary ? ListenerState::AskingFailed : declared;
}

}  // namespace Msrp
