/// MRPDU octets to plain values (IEEE 802.1Q 10.8).
#pragma once

#include "Mrp/Application.h"
#include "Mrp/Events.h"

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Mrp {

/// Most attribute types of an application.
inline constexpr std::size_t maxTypes = 8;

/// An attribute's value; octets beyond its type's length are zero.
struct AttributeValue {
    std::array<std::uint8_t, maxValueLength> octets{};
    std::uint8_t declaration = 0;  ///< of four-packed types, 0 to 3
    bool operator==(const AttributeValue&) const = default;
};

struct DecodedEvent {
    std::uint8_t typeIndex = 0;  ///< position in the application's types
    Event event = Event::New;
    AttributeValue value;
    bool operator==(const DecodedEvent&) const = default;
};

/// One flaw of a PDU and the octet at which it was seen.
struct Flaw {
    Malformed reason;
    std::size_t offset;
    bool operator==(const Flaw&) const = default;
};

struct DecodedPdu {
    std::vector<DecodedEvent> events;  ///< in the order of the PDU
    std::bitset<maxTypes> leaveAll;    ///< by position in the application's types
    std::vector<Flaw> flaws;           ///< what could be read in spite of them is above
};

/// Reads `pdu` into `out`, replacing what it holds.  Never fails: what is malformed is left out and listed.
/// The work is bounded by the number of octets (at most three values for each).
void decode(std::span<const std::uint8_t> pdu, const ApplicationInfo& application, DecodedPdu& out);

}  // namespace Mrp
