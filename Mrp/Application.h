/// What the engine must be told about an MRP application: its version, and one row for each attribute type.
/// The engine itself knows attributes as (type, key, value octets) only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Mrp {

/// Longest attribute value (FirstValue) of any application.
inline constexpr std::size_t maxValueLength = 34;

/// One attribute type of an application (IEEE 802.1Q 10.8.2 and 35.2.2).
struct AttributeType {
    std::uint8_t type;         ///< AttributeType on the wire
    std::uint8_t valueLength;  ///< AttributeLength on the wire, at most `maxValueLength`
    bool fourPacked;           ///< values carry a two-bit declaration after the events
    bool deliverFirst;         ///< its messages are delivered before other types' within one PDU
    /// After a join of this type that was accepted and is no mere repeat, joins that were refused on the same
    /// port are offered again; and a registered or refused attribute of this type is offered again whenever
    /// this side declares the same key.
    bool retriesPort;
    /// A New is indicated as such, and also when the attribute is registered already.
    bool tellsNew = false;
    /// The type that declares the same thing otherwise, or 0: of the two types only the one that was declared
    /// last counts for a key and a direction (35.2.6).
    std::uint8_t replaces;
    /// The key of a value: what names the attribute; two values of one key are two states of one attribute.
    std::uint64_t (*key)(std::span<const std::uint8_t> value);
    /// How many values can follow that one in a vector.
    std::size_t (*successors)(std::span<const std::uint8_t> value);
    /// Makes the next of them out of it, in place (the increments of 35.2.2.8).
    void (*increment)(std::span<std::uint8_t> value);
    /// True when `next` may follow `previous` in one vector: `next` is `previous` incremented by one, without
    /// any field wrapping.
    bool (*follows)(std::span<const std::uint8_t> previous, std::span<const std::uint8_t> next);
};

struct ApplicationInfo {
    std::uint8_t protocolVersion;
    /// Each message tells the length of its list (10.8.1.2); without it, only its EndMark ends it.
    bool listLength = true;
    std::span<const AttributeType> types;  ///< in ascending order of type
};

}  // namespace Mrp
