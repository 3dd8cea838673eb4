/// Octets as text: two lower-case hexadecimal digits for each, nothing between them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Control {

std::string hexOctets(std::span<const std::uint8_t> octets);
/// The octets of such a text; nothing when it is none.
std::optional<std::vector<std::uint8_t>> parseHexOctets(std::string_view text);

}  // namespace Control
