#include "Station/Event.h"

#include "Runtime/Text.h"
#include "State/Codec.h"

namespace Station {

using Msrp::TalkerState;
using Runtime::concat;
using State::Object;
using State::Value;

namespace {

std::string className(Msrp::SrClassId srClass) {
    switch (srClass) {
        case Msrp::SrClassId::SrClassA:
            return "A";
        case Msrp::SrClassId::SrClassB:
            return "B";
    }
    return std::to_string(Msrp::number(srClass));
}

template <class T>
Value whole(T number) {
    return Value{static_cast<Msrp::U64>(number)};
}

std::string line(const TalkerEvent& e) {
    const std::string subject = "talker " + State::hexText(e.streamId);
    switch (e.state) {
        case TalkerState::Advertise:
            return concat(subject, " advertised: ", e.macDa, " VLAN ", e.vlan, " priority ", e.priority, ", ",
                          e.maxIntervalFrames, " x ", e.maxFrameSize, " octets, rank ", e.rank, ", latency ",
                          e.latency, " ns");
        case TalkerState::Failed:
            return concat(subject, " failed: ", State::enumText(e.failureCode), " (code ",
                          Msrp::number(e.failureCode), ") at bridge ", State::hexText(e.failedBridgeId));
        case TalkerState::None:
            break;
    }
    return subject + " gone";
}

std::string line(const ListenerEvent& e) {
    return concat("listener ", State::hexText(e.streamId), ' ',
                  e.present ? State::enumText(e.state) : "gone");
}

std::string line(const DomainEvent& e) {
    const std::string subject = "domain class " + className(e.srClass);
    return e.present ? concat(subject, " priority ", e.priority, " VLAN ", e.vid) : subject + " gone";
}

std::string line(const LinkEvent& e) { return e.up ? "link up" : "link down"; }

Value object(const TalkerEvent& e) {
    Object o{{"talker", State::hexText(e.streamId)}, {"state", State::enumText(e.state)}};
    if (e.state == TalkerState::None) return o;
    o.insert(o.end(), {{"macDa", e.macDa.text()},
                       {"vlan", whole(e.vlan)},
                       {"priority", whole(e.priority)},
                       {"maxFrameSize", whole(e.maxFrameSize)},
                       {"maxIntervalFrames", whole(e.maxIntervalFrames)},
                       {"rank", whole(e.rank)},
                       {"latency", whole(e.latency)}});
    if (e.state == TalkerState::Failed) {
        o.emplace_back("failureCode", whole(Msrp::number(e.failureCode)));
        o.emplace_back("failure", State::enumText(e.failureCode));
        o.emplace_back("failedBridgeId", State::hexText(e.failedBridgeId));
    }
    return o;
}

Value object(const ListenerEvent& e) {
    return Object{{"listener", State::hexText(e.streamId)},
                  {"state", e.present ? State::enumText(e.state) : "None"}};
}

Value object(const DomainEvent& e) {
    Object o{{"domain", className(e.srClass)}, {"present", Value{e.present}}};
    if (e.present) o.insert(o.end(), {{"priority", whole(e.priority)}, {"vlan", whole(e.vid)}});
    return o;
}

Value object(const LinkEvent& e) { return Object{{"link", e.up ? "up" : "down"}}; }

}  // namespace

std::string text(const Event& event) {
    return std::visit([](const auto& e) { return line(e); }, event);
}

State::Value value(const Event& event) {
    return std::visit([](const auto& e) { return object(e); }, event);
}

}  // namespace Station
