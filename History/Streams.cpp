#include "History/Streams.h"

#include "Runtime/Text.h"

#include <algorithm>

namespace History {

StreamState stateOf(const Msrp::StreamData& stream) {
    using Code = Msrp::TalkerFailureCode;
    StreamState state;
    state.talker = stream.ingressIntf();
    if (const Msrp::StreamPort* talker = state.talker ? stream.port(state.talker) : nullptr) {
        state.failed =
            talker->talkerState == Msrp::TalkerState::Failed || talker->talkerFailureCode != Code::noFailure;
        state.waits = talker->talkerState != Msrp::TalkerState::Failed &&
                      talker->talkerFailureCode == Code::destinationAddressInUse;
        state.code = static_cast<std::uint8_t>(talker->talkerFailureCode);
    }
    if (state.talker) {
        state.srClass = stream.srClass();
        state.kbps =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(stream.bandwidth(), ~std::uint32_t{0}));
        state.destination = stream.macDa();
        state.vlan = stream.vlanId();
    }
    bool failsSomewhere = state.failed;
    for (const Msrp::StreamPort& row : stream.port()) {
        if (row.intf == state.talker || !row.hasListenerStateOrig ||
            row.listenerStateOrig == Msrp::ListenerState::Ignore)
            continue;
        PortState& port = state.ports.emplace_back(PortState{.intf = row.intf});
        if (!state.talker) continue;
        if (Msrp::wantsStream(row.listenerState)) {
            port.holding = Holding::reserved;
        } else if (!state.failed && row.talkerFailureCode != Code::noFailure) {
            port.holding = Msrp::isBandwidthFailure(row.talkerFailureCode) ? Holding::waits : Holding::failed;
            port.code = static_cast<std::uint8_t>(row.talkerFailureCode);
            failsSomewhere = true;
        }
    }
    if (failsSomewhere) state.bridge = stream.failedBridgeId();
    return state;
}

Reason reasonOf(const Msrp::IntfStatus* port, Msrp::SrClassId srClass) {
    if (port == nullptr) return Reason::msrpEnded;
    if (port->linkStatus() != Interface::LinkStatus::linkUp) return Reason::linkDown;
    if (srClass != Msrp::SrClassId{} && !Msrp::isActive(port->srClassState(srClass)))
        return Reason::classEnded;
    return Reason::withdrawn;
}

void appendChanges(std::uint64_t stream, const StreamState& before, const StreamState& now, const Why& why,
                   std::vector<Event>& out) {
    const auto add = [&](Kind kind, IntfId intf, Reason reason = Reason::none) -> Event& {
        Event& event = out.emplace_back();
        event.kind = kind;
        event.intf = intf;
        event.reason = reason;
        event.stream = stream;
        event.ofStream = true;
        return event;
    };
    const bool moved = before.talker != now.talker;
    if (moved && before.talker) {
        Event& event = add(Kind::left, before.talker,
                           now.talker ? Reason::talkerMoved : why(before.talker, before.srClass));
        event.srClass = before.srClass;
        event.kbps = before.kbps;
        event.destination = before.destination;
        event.vlan = before.vlan;
        event.text = portsText(before);
    }
    if (now.talker && (moved || (before.failed && !now.failed))) {
        Event& event = add(Kind::talker, now.talker);
        event.srClass = now.srClass;
        event.kbps = now.kbps;
        event.destination = now.destination;
        event.vlan = now.vlan;
    }
    if (now.failed && (moved || !before.failed || before.code != now.code || before.bridge != now.bridge)) {
        Event& event = add(now.waits ? Kind::waits : Kind::failed, now.talker);
        event.code = now.code;
        event.bridge = now.bridge;
        event.srClass = now.srClass;
        event.kbps = now.kbps;
    }

    const auto tell = [&](const PortState* old, const PortState* port) {
        const bool had = old != nullptr && old->holding == Holding::reserved;
        if (port == nullptr) {
            if (old == nullptr) return;
            Event& event =
                add(had ? Kind::released : Kind::unasked, old->intf, why(old->intf, before.srClass));
            if (had) event.kbps = before.kbps;
            return;
        }
        if (old != nullptr && *old == *port) return;
        switch (port->holding) {
            case Holding::asks:
                if (old == nullptr) {
                    add(Kind::asked, port->intf);
                } else if (had) {
                    const Reason reason = now.failed    ? Reason::talkerFailed
                                          : !now.talker ? Reason::talkerLeft
                                                        : why(port->intf, before.srClass);
                    add(Kind::released, port->intf, reason).kbps = before.kbps;
                }
                break;
            case Holding::reserved: {
                Event& event = add(Kind::reserved, port->intf);
                event.srClass = now.srClass;
                event.kbps = now.kbps;
                break;
            }
            case Holding::failed:
            case Holding::waits: {
                Event& event = add(port->holding == Holding::waits ? Kind::waits : Kind::failed, port->intf);
                event.code = port->code;
                event.bridge = now.bridge;
                event.srClass = now.srClass;
                event.kbps = now.kbps;
                break;
            }
        }
    };
    auto old = before.ports.begin();
    auto port = now.ports.begin();
    while (old != before.ports.end() || port != now.ports.end()) {
        const bool onlyOld = port == now.ports.end() || (old != before.ports.end() && old->intf < port->intf);
        const bool onlyNew = old == before.ports.end() || (!onlyOld && port->intf < old->intf);
        tell(onlyNew ? nullptr : &*old, onlyOld ? nullptr : &*port);
        if (!onlyNew) ++old;
        if (!onlyOld) ++port;
    }
}

std::string portsText(const StreamState& state) {
    std::string out;
    for (const PortState& port : state.ports) {
        if (!out.empty()) out += ", ";
        Runtime::append(out, Runtime::concat(port.intf, ' ', State::enumText(port.holding)));
        if (port.code != 0) Runtime::append(out, Runtime::concat(" (", std::uint32_t{port.code}, ')'));
        if (out.size() > textOctets) break;  // no more of it would be kept
    }
    return out;
}

}  // namespace History
