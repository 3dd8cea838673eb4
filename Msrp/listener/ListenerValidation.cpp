#include "Msrp/listener/ListenerValidation.h"

#include "Msrp/types/Format.h"
#include "Runtime/SystemLog.h"

namespace Msrp {

ListenerVerdict judgeListenerJoin(const ListenerFacts& f) {
    using Kind = ListenerVerdict::Kind;
    using Runtime::format;
    const HexId id{f.streamId};
    if (f.declared == ListenerState::Ignore) return {};
    if (!f.portActive) {
        return {.kind = Kind::inactive,
                .discard = format("Discard streamId 0x%s ListenerJoin on %s as MSRP is inactive on port", id,
                                  f.intf)};
    }
    if (!f.known) return {.kind = Kind::unknown};
    if (!f.ingress) return {.kind = Kind::early};
    if (f.ingress == f.intf) {
        return {
            .kind = Kind::refused,
            .discard = format("Discard streamId 0x%s ListenerJoin received on same interface %s as Talker",
                              id, f.intf)};
    }
    if (!isActive(f.classState)) {
        return {.kind = Kind::refused,
                .discard = format("Discard streamId 0x%s ListenerJoin on %s as %s is %s", id, f.intf,
                                  srClassName(f.srClass), srState(f.classState))};
    }
    return {.kind = Kind::asks, .effective = effectiveListener(f.declared, f.classState)};
}

}  // namespace Msrp
