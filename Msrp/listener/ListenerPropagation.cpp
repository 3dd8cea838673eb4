/// One declaration towards the talker, merged from all listeners.
#include "Msrp/MsrpSm.h"
#include "Msrp/listener/ListenerMerge.h"
#include "Msrp/types/Format.h"

namespace Msrp {

// 35.2.4.4.  The talker's port hears one declaration for all listeners behind the others.
void MsrpSm::propagateListenerAttribute(const U64& streamId) {
    const auto stream = existingStream(streamId);
    const IntfId ingress = stream->ingressIntf();
    if (!ingress) {
        trace("Not propagating Listener attribute for streamId 0x", HexId{streamId},
              " as there's no talker interface");
        return;
    }
    if (getTalkerState(*stream, ingress) == TalkerState::None) {
        trace("Not propagating Listener attribute for streamId 0x", HexId{streamId}, " as there's no talker");
        return;
    }
    ListenerState merged = ListenerState::Ignore;
    for (const auto& [port, enabled] : config().intfEnable()) {
        if (port == ingress || !isCandidate(port) || getTalkerState(*stream, port) == TalkerState::None)
            continue;
        merged = mergeListener(merged, stream->listenerState(port));
    }
    if (merged == stream->listenerState(ingress)) {
        trace("No change in propagated Listener attribute");
        return;
    }
    transmitListenerAttribute(ingress, streamId, merged);
}

void MsrpSm::transmitListenerAttribute(IntfId intf, const U64& streamId, ListenerState state) {
    const auto stream = existingStream(streamId);
    const ListenerState recorded = stream->listenerState(intf);
    if (state == recorded) {
        trace("Not transmitting duplicate ListenerAttribute");
        return;
    }
    const bool declare = state != ListenerState::Ignore;
    // A withdrawal carries what was declared last.
    const ListenerState event = getEventFromState(declare ? state : recorded);
    listenerStateIs(*stream, intf, state);
    log(declare ? MSRP_LISTENER_JOIN : MSRP_LISTENER_LV, "transmitted", intf, HexId{streamId}, number(state));
    counterInc(intf, Direction::Tx, listenerCounter(state));
    const MsrpListenerAttribute attr{streamId, event};
    send(intf, typeListener, declare ? Mrp::requestDeclare : Mrp::requestWithdraw, attr.octets(),
         number(event));
}

}  // namespace Msrp
