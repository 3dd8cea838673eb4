#include "State/Codec.h"

#include <algorithm>
#include <bit>
#include <charconv>

namespace State {

std::optional<std::uint64_t> parseDecimal(std::string_view text, std::uint64_t max) {
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc{} || rest != end || number > max) return std::nullopt;
    return number;
}

std::optional<std::uint64_t> parseHex(std::string_view text) {
    if (!text.starts_with("0x") && !text.starts_with("0X")) return std::nullopt;
    text.remove_prefix(2);
    std::uint64_t number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, 16);
    if (text.empty() || error != std::errc{} || rest != end) return std::nullopt;
    return number;
}

std::string hexText(std::uint64_t value) {
    std::string text{"0x"};
    for (unsigned digit = std::max(1U, (static_cast<unsigned>(std::bit_width(value)) + 3) / 4); digit-- > 0;)
        text += "0123456789ABCDEF"[value >> 4 * digit & 0xFU];
    return text;
}

}  // namespace State
