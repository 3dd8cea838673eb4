/// Numbers in network order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

namespace Runtime {

/// The same without a loop, which the compiler turns into a load and a swap.
template <std::size_t... at>
constexpr std::uint64_t bigEndian(std::span<const std::uint8_t> octets, std::index_sequence<at...>) {
    return ((std::uint64_t{octets[at]} << 8 * (sizeof...(at) - 1 - at)) | ...);
}

/// The number that up to eight octets hold, the most significant first.
constexpr std::uint64_t bigEndian(std::span<const std::uint8_t> octets) {
    if (octets.size() == 8) return bigEndian(octets, std::make_index_sequence<8>{});
    if (octets.size() == 6) return bigEndian(octets, std::make_index_sequence<6>{});
    std::uint64_t value = 0;
    for (const std::uint8_t octet : octets) value = value << 8 | octet;
    return value;
}

/// Fills the octets with the number; what does not fit into them is cut off at its front.
constexpr void bigEndianIs(std::span<std::uint8_t> octets, std::uint64_t value) {
    for (std::size_t i = octets.size(); i-- > 0; value >>= 8) octets[i] = static_cast<std::uint8_t>(value);
}

}  // namespace Runtime
