/// Which talker declarations are taken: ordered checks on what was received, with the text that tells why one
/// was not.
#pragma once

#include "Msrp/types/Enums.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <optional>
#include <string>

namespace Msrp {

/// What the checks look at.
struct TalkerFacts {
    IntfId intf;
    U64 streamId = 0;
    U16 vlanId = 0;
    EthAddr macDa;
    U8 priority = 0;
    IntfId knownIngress;  ///< port on which the stream is registered already; none when it is not
    U8 priorityA = 0;     ///< priorities of the two classes
    U8 priorityB = 0;
    SrClassState stateA = SrClassState::NotSupported;  ///< of the port
    SrClassState stateB = SrClassState::NotSupported;
};

struct TalkerVerdict {
    enum class Why : U8 { taken, vlanOutOfRange, notMulticast, notForStreams, otherPort, noClass, classAway };
    std::string discard;  ///< why the declaration is discarded, in words; empty when it is taken
    SrClassId srClass{};  ///< the stream's class, when it is taken or its class is away
    Why why = Why::taken;
};

TalkerVerdict checkTalkerAdvertise(const TalkerFacts& facts);
/// A failure is passed on from ports where an advertise would be judged: the VLAN and another ingress port
/// are not looked at here.
TalkerVerdict checkTalkerFailed(const TalkerFacts& facts);

}  // namespace Msrp
