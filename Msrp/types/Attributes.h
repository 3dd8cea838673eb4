/// The MSRP attribute records exactly as on the wire (IEEE 802.1Q 35.2.2.8): octets in network order, read
/// and written through accessors that convert.
#pragma once

#include "Mrp/Application.h"
#include "Msrp/types/Enums.h"
#include "Runtime/BigEndian.h"
#include "Switch/EthAddr.h"

#include <array>
#include <cstddef>
#include <span>

namespace Msrp {

/// AttributeType (table 35-1).
inline constexpr U8 typeTalkerAdvertise = 1;
inline constexpr U8 typeTalkerFailed = 2;
inline constexpr U8 typeListener = 3;
inline constexpr U8 typeDomain = 4;

/// What the engine must know of MSRP.
const Mrp::ApplicationInfo& application();

/// Priority in bits 7 to 5, rank in bit 4, the rest reserved (35.2.2.8.5).
struct PriorityAndRank {
    static constexpr U8 create(U8 priority, U8 rank) {
        return static_cast<U8>((priority & 7U) << 5 | (rank & 1U) << 4);
    }
};

/// Big-endian numbers inside a record of fixed size.
template <std::size_t size>
class WireRecord {
public:
    static constexpr std::size_t length = size;

    WireRecord() = default;
    /// From the first `size` octets of a slot; `octets` must hold as many.
    explicit WireRecord(std::span<const U8> octets) {
        for (std::size_t i = 0; i < size; ++i) octets_[i] = octets[i];
    }
    [[nodiscard]] const std::array<U8, size>& octets() const { return octets_; }
    bool operator==(const WireRecord&) const = default;

protected:
    [[nodiscard]] U64 get(std::size_t offset, std::size_t width) const {
        return Runtime::bigEndian(std::span{octets_}.subspan(offset, width));
    }
    void put(std::size_t offset, std::size_t width, U64 value) {
        Runtime::bigEndianIs(std::span{octets_}.subspan(offset, width), value);
    }

private:
    std::array<U8, size> octets_{};
};

/// The fields that Talker Advertise and Talker Failed share.
template <std::size_t size>
class TalkerRecord : public WireRecord<size> {
public:
    using WireRecord<size>::WireRecord;

    [[nodiscard]] U64 streamId() const { return this->get(0, 8); }
    void streamIdIs(U64 v) { this->put(0, 8, v); }
    [[nodiscard]] EthAddr macDa() const { return EthAddr::fromNumber(this->get(8, 6)); }
    void macDaIs(EthAddr v) { this->put(8, 6, v.number()); }
    [[nodiscard]] U16 vlanId() const { return static_cast<U16>(this->get(14, 2)); }
    void vlanIdIs(U16 v) { this->put(14, 2, v); }
    [[nodiscard]] U16 maxFrameSize() const { return static_cast<U16>(this->get(16, 2)); }
    void maxFrameSizeIs(U16 v) { this->put(16, 2, v); }
    [[nodiscard]] U16 maxIntervalFrames() const { return static_cast<U16>(this->get(18, 2)); }
    void maxIntervalFramesIs(U16 v) { this->put(18, 2, v); }
    [[nodiscard]] U8 priorityAndRank() const { return static_cast<U8>(this->get(20, 1)); }
    void priorityAndRankIs(U8 v) { this->put(20, 1, v); }
    [[nodiscard]] U8 dataFramePriority() const { return static_cast<U8>(priorityAndRank() >> 5); }
    [[nodiscard]] U8 rank() const { return static_cast<U8>(priorityAndRank() >> 4 & 1U); }
    /// Nanoseconds.
    [[nodiscard]] U32 accumulatedLatency() const { return static_cast<U32>(this->get(21, 4)); }
    void accumulatedLatencyIs(U32 v) { this->put(21, 4, v); }
};

class MsrpTalkerAdvertiseAttribute : public TalkerRecord<25> {
public:
    using TalkerRecord<25>::TalkerRecord;
};

class MsrpTalkerFailedAttribute : public TalkerRecord<34> {
public:
    using TalkerRecord<34>::TalkerRecord;
    /// The advertise with the failure added to it.
    MsrpTalkerFailedAttribute(const MsrpTalkerAdvertiseAttribute& advertise, U64 bridgeId,
                              TalkerFailureCode code);

    [[nodiscard]] U64 failedBridgeId() const { return get(25, 8); }
    void failedBridgeIdIs(U64 v) { put(25, 8, v); }
    [[nodiscard]] TalkerFailureCode failureCode() const {
        return TalkerFailureCode{static_cast<U8>(get(33, 1))};
    }
    void failureCodeIs(TalkerFailureCode v) { put(33, 1, static_cast<U8>(v)); }
};

/// The stream id as on the wire; the declaration travels in the four-packed events.
class MsrpListenerAttribute : public WireRecord<8> {
public:
    using WireRecord<8>::WireRecord;
    MsrpListenerAttribute(U64 id, ListenerState state) : listenerState_{state} { put(0, 8, id); }
    MsrpListenerAttribute(std::span<const U8> octets, U32 declaration)
        : WireRecord<8>{octets}, listenerState_{static_cast<U8>(declaration)} {}

    [[nodiscard]] U64 streamId() const { return get(0, 8); }
    [[nodiscard]] ListenerState listenerState() const { return listenerState_; }

private:
    ListenerState listenerState_ = ListenerState::Ignore;
};

class MsrpDomainAttribute : public WireRecord<4> {
public:
    using WireRecord<4>::WireRecord;
    MsrpDomainAttribute(SrClassId srClass, U8 priority, U16 vid) {
        put(0, 1, static_cast<U8>(srClass));
        put(1, 1, priority);
        put(2, 2, vid);
    }

    [[nodiscard]] SrClassId srClassId() const { return SrClassId{static_cast<U8>(get(0, 1))}; }
    [[nodiscard]] U8 srClassPriority() const { return static_cast<U8>(get(1, 1)); }
    [[nodiscard]] U16 srClassVid() const { return static_cast<U16>(get(2, 2)); }
};

}  // namespace Msrp
