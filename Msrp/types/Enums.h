/// The enumerations of stream reservation (IEEE 802.1Q clause 35), with the numbers that go on the wire.
#pragma once

#include "State/Codec.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Msrp {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = std::uint64_t;

/// SRclassID (35.2.2.9.2).  Any other octet can come from the wire and names no class.
enum class SrClassId : U8 { SrClassB = 5, SrClassA = 6 };
constexpr auto srClassIdNames = std::to_array<State::EnumName<SrClassId>>(
    {{SrClassId::SrClassB, "SrClassB"}, {SrClassId::SrClassA, "SrClassA"}});
constexpr const auto& enumNames(SrClassId) { return srClassIdNames; }
/// Both classes in the order in which a port's classes are handled.
inline constexpr std::array bothClasses{SrClassId::SrClassB, SrClassId::SrClassA};

/// What a port is to a class (SRPdomainBoundaryPort, 35.1.4).
enum class SrClassState : U8 { NotSupported = 0, WaitingForPeer = 1, Boundary = 2, Core = 3 };
constexpr auto srClassStateNames =
    std::to_array<State::EnumName<SrClassState>>({{SrClassState::NotSupported, "NotSupported"},
                                                  {SrClassState::WaitingForPeer, "WaitingForPeer"},
                                                  {SrClassState::Boundary, "Boundary"},
                                                  {SrClassState::Core, "Core"}});
constexpr const auto& enumNames(SrClassState) { return srClassStateNames; }
/// Only boundary and core ports take part in the class.
constexpr bool isActive(SrClassState state) { return state >= SrClassState::Boundary; }

enum class TalkerState : U8 { None = 0, Advertise = 1, Failed = 2 };
constexpr auto talkerStateNames = std::to_array<State::EnumName<TalkerState>>(
    {{TalkerState::None, "None"}, {TalkerState::Advertise, "Advertise"}, {TalkerState::Failed, "Failed"}});
constexpr const auto& enumNames(TalkerState) { return talkerStateNames; }

/// Listener declaration type (35.2.2.7.2).
enum class ListenerState : U8 { Ignore = 0, AskingFailed = 1, Ready = 2, ReadyFailed = 3 };
constexpr auto listenerStateNames =
    std::to_array<State::EnumName<ListenerState>>({{ListenerState::Ignore, "Ignore"},
                                                   {ListenerState::AskingFailed, "AskingFailed"},
                                                   {ListenerState::Ready, "Ready"},
                                                   {ListenerState::ReadyFailed, "ReadyFailed"}});
constexpr const auto& enumNames(ListenerState) { return listenerStateNames; }
constexpr std::string_view stateName(ListenerState state) {
    const auto number = static_cast<std::size_t>(state);
    return number < listenerStateNames.size() ? listenerStateNames[number].name : "unknown";
}
/// True for a listener that can receive the stream, or some of whose stations can.
constexpr bool wantsStream(ListenerState state) {
    return state == ListenerState::Ready || state == ListenerState::ReadyFailed;
}

enum class MsrpPortState : U8 { Blocked = 0, Forwarding = 1 };
constexpr auto msrpPortStateNames = std::to_array<State::EnumName<MsrpPortState>>(
    {{MsrpPortState::Blocked, "Blocked"}, {MsrpPortState::Forwarding, "Forwarding"}});
constexpr const auto& enumNames(MsrpPortState) { return msrpPortStateNames; }

enum class Direction : U8 { Rx = 0, Tx = 1 };

/// What the per-port counters count, in either direction.  A listener declaration counts under its state's
/// number above `listenerLeave`, a discarded one above `listenerLeaveDiscarded`.
enum class MsrpCounter : U32 {
    talkerAdvertise = 0,
    talkerFailed = 1,
    talkerAdvertiseFailedHere = 2,
    talkerAdvertiseLeave = 3,
    talkerFailedLeave = 4,
    talkerAdvertiseDiscarded = 5,
    talkerFailedDiscarded = 6,
    talkerAdvertiseLeaveDiscarded = 7,
    talkerFailedLeaveDiscarded = 8,
    listenerLeave = 9,
    listenerAskingFailed = 10,
    listenerReady = 11,
    listenerReadyFailed = 12,
    listenerLeaveDiscarded = 13,
    listenerAskingFailedDiscarded = 14,
    listenerReadyDiscarded = 15,
    listenerReadyFailedDiscarded = 16,
};
inline constexpr U32 msrpCounters = 17;
constexpr auto msrpCounterNames = std::to_array<State::EnumName<MsrpCounter>>(
    {{MsrpCounter::talkerAdvertise, "talkerAdvertise"},
     {MsrpCounter::talkerFailed, "talkerFailed"},
     {MsrpCounter::talkerAdvertiseFailedHere, "talkerAdvertiseFailedHere"},
     {MsrpCounter::talkerAdvertiseLeave, "talkerAdvertiseLeave"},
     {MsrpCounter::talkerFailedLeave, "talkerFailedLeave"},
     {MsrpCounter::talkerAdvertiseDiscarded, "talkerAdvertiseDiscarded"},
     {MsrpCounter::talkerFailedDiscarded, "talkerFailedDiscarded"},
     {MsrpCounter::talkerAdvertiseLeaveDiscarded, "talkerAdvertiseLeaveDiscarded"},
     {MsrpCounter::talkerFailedLeaveDiscarded, "talkerFailedLeaveDiscarded"},
     {MsrpCounter::listenerLeave, "listenerLeave"},
     {MsrpCounter::listenerAskingFailed, "listenerAskingFailed"},
     {MsrpCounter::listenerReady, "listenerReady"},
     {MsrpCounter::listenerReadyFailed, "listenerReadyFailed"},
     {MsrpCounter::listenerLeaveDiscarded, "listenerLeaveDiscarded"},
     {MsrpCounter::listenerAskingFailedDiscarded, "listenerAskingFailedDiscarded"},
     {MsrpCounter::listenerReadyDiscarded, "listenerReadyDiscarded"},
     {MsrpCounter::listenerReadyFailedDiscarded, "listenerReadyFailedDiscarded"}});
constexpr const auto& enumNames(MsrpCounter) { return msrpCounterNames; }
constexpr MsrpCounter listenerCounter(ListenerState state) {
    return MsrpCounter{static_cast<U32>(MsrpCounter::listenerLeave) + static_cast<U32>(state)};
}
constexpr MsrpCounter listenerDiscardCounter(ListenerState state) {
    return MsrpCounter{static_cast<U32>(MsrpCounter::listenerLeaveDiscarded) + static_cast<U32>(state)};
}

/// Reservation failure code (table 35-6).  Any octet can come from the wire and is carried on unchanged.
enum class TalkerFailureCode : U8 {
    noFailure = 0,
    insufficientBandwidth = 1,
    insufficientResources = 2,
    insufficientBandwidthForClass = 3,
    streamIdInUse = 4,
    destinationAddressInUse = 5,
    preempted = 6,
    latencyChanged = 7,
    egressPortNotAvbCapable = 8,
    useDifferentAddress = 9,
    outOfMsrpResources = 10,
    outOfMmrpResources = 11,
    cannotStoreAddress = 12,
    notAnSrClassPriority = 13,
    maxFrameSizeTooLarge = 14,
    fanInPortsReached = 15,
    firstValueChanged = 16,
    vlanBlocked = 17,
    vlanTaggingDisabled = 18,
    srClassPriorityMismatch = 19,
};
constexpr auto talkerFailureCodeNames = std::to_array<State::EnumName<TalkerFailureCode>>(
    {{TalkerFailureCode::noFailure, "no failure"},
     {TalkerFailureCode::insufficientBandwidth, "insufficient bandwidth"},
     {TalkerFailureCode::insufficientResources, "insufficient bridge resources"},
     {TalkerFailureCode::insufficientBandwidthForClass, "insufficient bandwidth for the traffic class"},
     {TalkerFailureCode::streamIdInUse, "stream id in use by another talker"},
     {TalkerFailureCode::destinationAddressInUse, "stream destination address already in use"},
     {TalkerFailureCode::preempted, "preempted by a stream of higher rank"},
     {TalkerFailureCode::latencyChanged, "reported latency has changed"},
     {TalkerFailureCode::egressPortNotAvbCapable, "egress port is not AVB capable"},
     {TalkerFailureCode::useDifferentAddress, "use a different destination address"},
     {TalkerFailureCode::outOfMsrpResources, "out of MSRP resources"},
     {TalkerFailureCode::outOfMmrpResources, "out of MMRP resources"},
     {TalkerFailureCode::cannotStoreAddress, "cannot store destination address"},
     {TalkerFailureCode::notAnSrClassPriority, "priority is not an SR class priority"},
     {TalkerFailureCode::maxFrameSizeTooLarge, "MaxFrameSize is too large for media"},
     {TalkerFailureCode::fanInPortsReached, "limit of fan-in ports reached"},
     {TalkerFailureCode::firstValueChanged, "changed value for a registered stream id"},
     {TalkerFailureCode::vlanBlocked, "VLAN is blocked on the egress port"},
     {TalkerFailureCode::vlanTaggingDisabled, "VLAN tagging is disabled on the egress port"},
     {TalkerFailureCode::srClassPriorityMismatch, "SR class priority mismatch"}});
constexpr const auto& enumNames(TalkerFailureCode) { return talkerFailureCodeNames; }
/// The two codes that a release of bandwidth can cure.
constexpr bool isBandwidthFailure(TalkerFailureCode code) {
    return code == TalkerFailureCode::insufficientBandwidth ||
           code == TalkerFailureCode::insufficientBandwidthForClass;
}

/// The number of an enumerator, for messages that print numbers.
template <class E>
constexpr U32 number(E e) {
    return static_cast<U32>(e);
}

}  // namespace Msrp
