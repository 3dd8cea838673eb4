/// What an end station learns: one event for each change of what the bridge declares to it.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Schema.h"
#include "State/Value.h"
#include "Switch/EthAddr.h"

#include <string>
#include <variant>

namespace Station {

/// A talker's declaration as it arrives here; state `None`: there is none any more.
struct TalkerEvent {
    Msrp::U64 streamId = 0;
    Msrp::TalkerState state = Msrp::TalkerState::None;
    EthAddr macDa{};
    Msrp::U16 vlan = 0;
    Msrp::U8 priority = 0;
    Msrp::U16 maxFrameSize = 0;
    Msrp::U16 maxIntervalFrames = 0;
    Msrp::U8 rank = 0;
    Msrp::U32 latency = 0;  ///< nanoseconds, accumulated up to here
    /// Of a failed talker: why, and the bridge that found out.
    Msrp::TalkerFailureCode failureCode = Msrp::TalkerFailureCode::noFailure;
    Msrp::U64 failedBridgeId = 0;
    bool operator==(const TalkerEvent&) const = default;
};

/// What the listeners behind the bridge say together; absent: there are none any more.
struct ListenerEvent {
    Msrp::U64 streamId = 0;
    bool present = false;
    Msrp::ListenerState state = Msrp::ListenerState::Ignore;
    bool operator==(const ListenerEvent&) const = default;
};

/// The bridge's word on one SR class.
struct DomainEvent {
    Msrp::SrClassId srClass = Msrp::SrClassId::SrClassA;
    bool present = false;
    Msrp::U8 priority = 0;
    Msrp::U16 vid = 0;
    bool operator==(const DomainEvent&) const = default;
};

struct LinkEvent {
    bool up = false;
    bool operator==(const LinkEvent&) const = default;
};

using Event = std::variant<TalkerEvent, ListenerEvent, DomainEvent, LinkEvent>;

/// One line: "talker 0x1 failed: insufficient bandwidth (code 1) at bridge 0x8000020000000001".
std::string text(const Event& event);
/// The same as an object; its first member tells what it is about.
State::Value value(const Event& event);
/// What such an object is.
State::Schema schema();

}  // namespace Station
