#include "Control/HexOctets.h"

namespace Control {

namespace {
constexpr std::string_view hexDigits = "0123456789abcdef";
}  // namespace

std::string hexOctets(std::span<const std::uint8_t> octets) {
    std::string text;
    text.reserve(2 * octets.size());
    for (const std::uint8_t octet : octets) {
        text += hexDigits[octet >> 4U];
        text += hexDigits[octet & 0xFU];
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> parseHexOctets(std::string_view text) {
    std::vector<std::uint8_t> octets;
    octets.reserve(text.size() / 2);
    for (; text.size() >= 2; text.remove_prefix(2)) {
        const std::size_t high = hexDigits.find(text[0]);
        const std::size_t low = hexDigits.find(text[1]);
        if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
        octets.push_back(static_cast<std::uint8_t>(high << 4U | low));
    }
    if (!text.empty()) return std::nullopt;
    return octets;
}

}  // namespace Control
