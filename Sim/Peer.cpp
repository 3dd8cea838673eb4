#include "Sim/Peer.h"

#include "Mrp/PduWriter.h"
#include "Msrp/types/Format.h"

#include <algorithm>

namespace Sim {

namespace {

Msrp::MsrpTalkerAdvertiseAttribute attribute(const Talker& t) {
    Msrp::MsrpTalkerAdvertiseAttribute attr;
    attr.streamIdIs(t.id);
    attr.macDaIs(EthAddr::fromNumber(t.macDa));
    attr.vlanIdIs(t.vlan);
    attr.maxFrameSizeIs(t.maxFrameSize);
    attr.maxIntervalFramesIs(t.frames);
    attr.priorityAndRankIs(Msrp::PriorityAndRank::create(t.priority, t.rank));
    attr.accumulatedLatencyIs(t.latency);
    return attr;
}

template <class Attribute>
std::vector<std::uint8_t> octets(const Attribute& attr) {
    return {attr.octets().begin(), attr.octets().end()};
}

/// Where a talker has named one: " latency 500".
std::string latency(std::uint32_t nanoseconds) {
    return nanoseconds == 0 ? std::string{} : " latency " + std::to_string(nanoseconds);
}

}  // namespace

std::string describe(std::uint8_t type, const Mrp::AttributeValue& value) {
    switch (type) {
        case Msrp::typeTalkerAdvertise: {
            const Msrp::MsrpTalkerAdvertiseAttribute attr{value.octets};
            return "Advertise 0x" + Msrp::hexStr(attr.streamId()) + latency(attr.accumulatedLatency());
        }
        case Msrp::typeTalkerFailed: {
            const Msrp::MsrpTalkerFailedAttribute attr{value.octets};
            return "Failed 0x" + Msrp::hexStr(attr.streamId()) + " code " +
                   std::to_string(Msrp::number(attr.failureCode())) + " bridge 0x" +
                   Msrp::hexStr(attr.failedBridgeId()) + latency(attr.accumulatedLatency());
        }
        case Msrp::typeListener: {
            const Msrp::MsrpListenerAttribute attr{value.octets, value.declaration};
            return "Listener 0x" + Msrp::hexStr(attr.streamId()) + ' ' +
                   State::enumText(attr.listenerState());
        }
        default: {
            const Msrp::MsrpDomainAttribute attr{value.octets};
            return "Domain " + std::to_string(Msrp::number(attr.srClassId())) + " priority " +
                   std::to_string(attr.srClassPriority()) + " vid " + std::to_string(attr.srClassVid());
        }
    }
}

Say advertise(const Talker& talker, Mrp::Event event) {
    return {event, Msrp::typeTalkerAdvertise, octets(attribute(talker)), 0};
}
Say failed(const Talker& talker, std::uint8_t code, std::uint64_t bridge, Mrp::Event event) {
    const Msrp::MsrpTalkerFailedAttribute attr{attribute(talker), bridge, Msrp::TalkerFailureCode{code}};
    return {event, Msrp::typeTalkerFailed, octets(attr), 0};
}
Say listener(std::uint64_t id, Msrp::ListenerState state, Mrp::Event event) {
    return {event, Msrp::typeListener, octets(Msrp::MsrpListenerAttribute{id, state}),
            static_cast<std::uint8_t>(state)};
}
Say domain(Msrp::SrClassId srClass, std::uint8_t priority, Mrp::Event event, std::uint16_t vid) {
    return {event, Msrp::typeDomain, octets(Msrp::MsrpDomainAttribute{srClass, priority, vid}), 0};
}
std::vector<Say> domains(Mrp::Event event) {
    return {domain(Msrp::SrClassId::SrClassB, 2, event), domain(Msrp::SrClassId::SrClassA, 3, event)};
}

Mrp::AttributeValue valueOf(const Say& what) {
    Mrp::AttributeValue value;
    std::ranges::copy(what.value, value.octets.begin());
    value.declaration = what.declaration;
    return value;
}

std::vector<Pdu> pdusOf(std::vector<Say> events, bool leaveAll) {
    std::ranges::stable_sort(events, {}, &Say::type);
    std::vector<Pdu> pdus;
    Mrp::PduWriter writer{Msrp::application(), leaveAll};
    const auto close = [&] {
        const auto pdu = writer.finish();
        pdus.emplace_back(pdu.begin(), pdu.end());
    };
    for (const Say& event : events) {
        const auto typeIndex = static_cast<std::uint8_t>(event.type - 1);
        if (writer.add(typeIndex, event.event, valueOf(event))) continue;
        close();
        writer = Mrp::PduWriter{Msrp::application(), false};
        writer.add(typeIndex, event.event, valueOf(event));
    }
    close();
    return pdus;
}

Peer::Peer(Bridge& bridge, const std::string& port) : bridge_{bridge}, intf_{port} {
    bridge_.ports().cableIs(intf_, [this](const Pdu& pdu) { receive(pdu); });
}

void Peer::receive(const Pdu& pdu) {
    ++frames_;
    pdus_.push_back(pdu);
    Mrp::DecodedPdu decoded;
    Mrp::decode(pdu, Msrp::application(), decoded);
    if (decoded.leaveAll.any()) heard_ += "LeaveAll\n";
    for (const Mrp::DecodedEvent& event : decoded.events) {
        const Mrp::AttributeType& type = Msrp::application().types[event.typeIndex];
        const std::string what = describe(type.type, event.value);
        heard_ += State::enumText(event.event) + ' ' + what + '\n';
        // Both kinds of talker declaration replace each other.
        const int kind = type.type == Msrp::typeTalkerFailed ? Msrp::typeTalkerAdvertise : type.type;
        const std::pair<int, std::uint64_t> name{
            kind, type.key(std::span{event.value.octets}.first(type.valueLength))};
        if (Mrp::declares(event.event)) {
            registered_[name] = what;
        } else if (event.event == Mrp::Event::Lv) {
            const auto at = registered_.find(name);
            if (at != registered_.end() && at->second == what) registered_.erase(at);
        }
    }
}

std::string Peer::registered() const {
    std::string out;
    for (const auto& [name, what] : registered_) out += what + '\n';
    return out;
}

std::string Peer::heard() { return std::exchange(heard_, {}); }

}  // namespace Sim
