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

// Each has every member, null where it says nothing.

Value object(const TalkerEvent& e) {
    const auto there = [&](Value value) { return e.state == TalkerState::None ? Value{} : std::move(value); };
    const auto failed = [&](Value value) {
        return e.state == TalkerState::Failed ? std::move(value) : Value{};
    };
    return Object{{"talker", State::hexText(e.streamId)},
                  {"state", State::enumText(e.state)},
                  {"macDa", there(e.macDa.text())},
                  {"vlan", there(whole(e.vlan))},
                  {"priority", there(whole(e.priority))},
                  {"maxFrameSize", there(whole(e.maxFrameSize))},
                  {"maxIntervalFrames", there(whole(e.maxIntervalFrames))},
                  {"rank", there(whole(e.rank))},
                  {"latency", there(whole(e.latency))},
                  {"failureCode", failed(whole(Msrp::number(e.failureCode)))},
                  {"failure", failed(State::enumText(e.failureCode))},
                  {"failedBridgeId", failed(State::hexText(e.failedBridgeId))}};
}

Value object(const ListenerEvent& e) {
    return Object{{"listener", State::hexText(e.streamId)},
                  {"state", e.present ? State::enumText(e.state) : "None"}};
}

Value object(const DomainEvent& e) {
    const auto there = [&](Value value) { return e.present ? std::move(value) : Value{}; };
    return Object{{"domain", className(e.srClass)},
                  {"present", Value{e.present}},
                  {"priority", there(whole(e.priority))},
                  {"vlan", there(whole(e.vid))}};
}

Value object(const LinkEvent& e) { return Object{{"link", e.up ? "up" : "down"}}; }

}  // namespace

std::string text(const Event& event) {
    return std::visit([](const auto& e) { return line(e); }, event);
}

State::Value value(const Event& event) {
    return std::visit([](const auto& e) { return object(e); }, event);
}

State::Schema schema() {
    using State::Codec;
    using State::orNull;
    const State::Schema id = State::HexKey::schema();
    const State::Schema text = Codec<std::string>::schema();
    const State::Schema small = orNull(Codec<Msrp::U8>::schema());
    const State::Schema middle = orNull(Codec<Msrp::U16>::schema());
    return {.choices = {State::objectOf({{"talker", id},
                                         {"state", Codec<TalkerState>::schema()},
                                         {"macDa", orNull(Codec<EthAddr>::schema())},
                                         {"vlan", middle},
                                         {"priority", small},
                                         {"maxFrameSize", middle},
                                         {"maxIntervalFrames", middle},
                                         {"rank", small},
                                         {"latency", orNull(Codec<Msrp::U32>::schema())},
                                         {"failureCode", small},
                                         {"failure", orNull(text)},
                                         {"failedBridgeId", orNull(id)}}),
                        State::objectOf({{"listener", id}, {"state", text}}),
                        State::objectOf({{"domain", text},
                                         {"present", Codec<bool>::schema()},
                                         {"priority", small},
                                         {"vlan", middle}}),
                        State::objectOf({{"link", {.type = "string", .names = {"up", "down"}}}})}};
}

}  // namespace Station
