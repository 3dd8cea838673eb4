/// How much bandwidth a stream needs, and whether a port has it (IEEE 802.1Q 35.2.4.2 and 34.3).
#pragma once

#include "Msrp/types/Enums.h"
#include "Switch/Interface.h"

#include <algorithm>

namespace Msrp {

/// kbit/s of a stream.  `maxIntervalFrames` frames per class measurement interval (125 us for class A, 250 us
/// for any other), each of `maxFrameSize` octets and 42 octets around it on the wire.  32-bit arithmetic that
/// wraps.
constexpr U64 streamBandwidth(SrClassId srClass, U32 maxIntervalFrames, U32 maxFrameSize) {
    constexpr U32 overhead = 42;
    const U32 framesPerSecond = srClass == SrClassId::SrClassA ? 8000 : 4000;
    const U32 framesPerMillisecond = maxIntervalFrames * framesPerSecond / 1000;
    const U32 kbps = framesPerMillisecond * (maxFrameSize + overhead) * 8;
    return kbps;
}

/// The frames per interval that a Talker Advertise is recorded with and charged for: the low octet of what it
/// says.
constexpr U8 recordedFrames(U16 maxIntervalFrames) { return static_cast<U8>(maxIntervalFrames); }

/// kbit/s of a link; 0 for unknown speeds and for those (2.5G and 5G) on which no stream is admitted.
constexpr U64 linkSpeedKbps(Interface::Speed speed) {
    using enum Interface::Speed;
    const bool admitting = speed != speed2500Mbps && speed != speed5Gbps;
    return admitting ? U64{1000} * Interface::megabitsPerSecond(speed) : 0;
}

/// What the decision rests on.  Bandwidths in kbit/s, shares in per cent of the link.
struct AdmissionRequest {
    SrClassId srClass = SrClassId::SrClassA;
    U64 needed = 0;
    U64 link = 0;
    U64 percentA = 0;
    U64 percentB = 0;
    U64 allocatedA = 0;
    U64 allocatedB = 0;
};

constexpr U64 allowedTotal(const AdmissionRequest& r) { return (r.percentA + r.percentB) * r.link / 100; }

/// What the class may have on the port: class B what class A leaves of the joint share.
constexpr U64 allowedForClass(const AdmissionRequest& r) {
    if (r.srClass == SrClassId::SrClassA) return r.percentA * r.link / 100;
    return allowedTotal(r) - std::min(allowedTotal(r), r.allocatedA);
}

/// `noFailure`, `insufficientBandwidth` (both classes' share is exceeded) or `insufficientBandwidthForClass`.
/// What fits exactly is admitted.
constexpr TalkerFailureCode admit(const AdmissionRequest& r) {
    const U64 total = allowedTotal(r);
    if (total < r.allocatedA + r.allocatedB + r.needed) return TalkerFailureCode::insufficientBandwidth;
    const U64 allocated = r.srClass == SrClassId::SrClassA ? r.allocatedA : r.allocatedB;
    return allowedForClass(r) < allocated + r.needed ? TalkerFailureCode::insufficientBandwidthForClass
                                                     : TalkerFailureCode::noFailure;
}

/// The most that a stream of the class may need to be admitted now.
constexpr U64 availableBandwidth(const AdmissionRequest& r) {
    const auto left = [](U64 from, U64 taken) { return from - std::min(from, taken); };
    const bool classA = r.srClass == SrClassId::SrClassA;
    const U64 together = left(allowedTotal(r), r.allocatedA + r.allocatedB);
    // Class B's own limit is what class A leaves of the joint share.
    return classA ? std::min(together, left(r.percentA * r.link / 100, r.allocatedA)) : together;
}

/// kbit/s that are missing for the stream to be admitted; 0 when it is.
constexpr U64 missingBandwidth(const AdmissionRequest& r) {
    const U64 total = allowedTotal(r);
    const U64 together = r.allocatedA + r.allocatedB + r.needed;
    const U64 own = (r.srClass == SrClassId::SrClassA ? r.allocatedA : r.allocatedB) + r.needed;
    const U64 allowed = allowedForClass(r);
    return std::max(together - std::min(together, total), own - std::min(own, allowed));
}

}  // namespace Msrp
