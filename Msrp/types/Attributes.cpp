#include "Msrp/types/Attributes.h"

#include <algorithm>

namespace Msrp {

namespace {

using Runtime::bigEndian;

// Stream id: 48-bit address and 16-bit unique id, of which only the unique id is counted up (35.2.2.8.2).
constexpr std::size_t uniqueIdAt = 6;
constexpr std::size_t macDaAt = 8;
constexpr std::size_t macDaOctets = 6;
constexpr std::size_t afterMacDa = macDaAt + macDaOctets;

U64 streamKey(std::span<const U8> value) { return bigEndian(value.first(8)); }
U64 domainKey(std::span<const U8> value) { return value[0]; }

/// Counts up a big-endian number in place; it wraps.  Nearly always the last octet says it all, and a frame
/// may hold thousands of values.
void countUp(std::span<U8> octets) {
    for (auto octet = octets.rbegin(); octet != octets.rend() && ++*octet == 0; ++octet) {
    }
}
std::size_t streamSuccessors(std::span<const U8>) { return SIZE_MAX; }
void incrementStream(std::span<U8> value) { countUp(value.subspan(uniqueIdAt, 2)); }
void incrementTalker(std::span<U8> value) {
    countUp(value.subspan(macDaAt, macDaOctets));
    incrementStream(value);
}
std::size_t domainSuccessors(std::span<const U8> value) { return 0xffU - std::max(value[0], value[1]); }
void incrementDomain(std::span<U8> value) {
    ++value[0];
    ++value[1];
}

bool streamFollows(std::span<const U8> previous, std::span<const U8> next) {
    // The comparison of whole ids leaves out the wrap of the unique id: it would carry into the address.
    return std::equal(previous.begin(), previous.begin() + uniqueIdAt, next.begin()) &&
           bigEndian(previous.first(8)) + 1 == bigEndian(next.first(8));
}
bool talkerFollows(std::span<const U8> previous, std::span<const U8> next) {
    return streamFollows(previous, next) &&
           bigEndian(previous.subspan(macDaAt, macDaOctets)) + 1 ==
               bigEndian(next.subspan(macDaAt, macDaOctets)) &&
           std::equal(previous.begin() + afterMacDa, previous.end(), next.begin() + afterMacDa, next.end());
}
bool domainFollows(std::span<const U8> previous, std::span<const U8> next) {
    return previous[0] + 1 == next[0] && previous[1] + 1 == next[1] && previous[2] == next[2] &&
           previous[3] == next[3];
}

constexpr std::array<Mrp::AttributeType, 4> types{{
    {.type = typeTalkerAdvertise,
     .valueLength = MsrpTalkerAdvertiseAttribute::length,
     .fourPacked = false,
     .deliverFirst = false,
     .retriesPort = false,
     .replaces = typeTalkerFailed,
     .key = streamKey,
     .successors = streamSuccessors,
     .increment = incrementTalker,
     .follows = talkerFollows},
    {.type = typeTalkerFailed,
     .valueLength = MsrpTalkerFailedAttribute::length,
     .fourPacked = false,
     .deliverFirst = false,
     .retriesPort = false,
     .replaces = typeTalkerAdvertise,
     .key = streamKey,
     .successors = streamSuccessors,
     .increment = incrementTalker,
     .follows = talkerFollows},
    {.type = typeListener,
     .valueLength = MsrpListenerAttribute::length,
     .fourPacked = true,
     .deliverFirst = false,
     .retriesPort = false,
     .replaces = 0,
     .key = streamKey,
     .successors = streamSuccessors,
     .increment = incrementStream,
     .follows = streamFollows},
    {.type = typeDomain,
     .valueLength = MsrpDomainAttribute::length,
     .fourPacked = false,
     .deliverFirst = true,
     .retriesPort = true,
     .replaces = 0,
     .key = domainKey,
     .successors = domainSuccessors,
     .increment = incrementDomain,
     .follows = domainFollows},
}};
constexpr Mrp::ApplicationInfo msrp{.protocolVersion = 0, .types = types};

}  // namespace

const Mrp::ApplicationInfo& application() { return msrp; }

MsrpTalkerFailedAttribute::MsrpTalkerFailedAttribute(const MsrpTalkerAdvertiseAttribute& advertise,
                                                     U64 bridgeId, TalkerFailureCode code) {
    for (std::size_t i = 0; i < MsrpTalkerAdvertiseAttribute::length; ++i) put(i, 1, advertise.octets()[i]);
    failedBridgeIdIs(bridgeId);
    failureCodeIs(code);
}

}  // namespace Msrp
