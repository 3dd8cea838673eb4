#include "State/Codec.h"

#include <charconv>
#include <cstdio>

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
    char digits[24];
    std::snprintf(digits, sizeof digits, "0x%llX", static_cast<unsigned long long>(value));
    return digits;
}

}  // namespace State
