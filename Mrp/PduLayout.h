/// The parts of an MRPDU that belong to no attribute type (IEEE 802.1Q, 10.8.1.2), in octets.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Mrp {

inline constexpr std::size_t versionLength = 1;
/// Attribute type and length, then the length of the attribute list where it is told.
constexpr std::size_t messageHeaderLength(bool listLength) { return listLength ? 4 : 2; }
inline constexpr std::size_t vectorHeaderLength = 2;
inline constexpr std::size_t endMarkLength = 2;
/// What a LeaveAll adds to a vector header, beside the number of values, which is below it (10.8.2.6).
inline constexpr std::uint16_t leaveAllUnit = 8192;

/// Longest MRPDU: there is no fragmentation.
inline constexpr std::size_t maxPduLength = 1500;

}  // namespace Mrp
