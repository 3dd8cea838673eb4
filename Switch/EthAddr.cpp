#include "Switch/EthAddr.h"

#include <charconv>

std::optional<EthAddr> EthAddr::parse(std::string_view text) {
    if (text.size() != 17) return std::nullopt;
    std::array<std::uint8_t, 6> octets{};
    for (std::size_t i = 0; i < 6; ++i) {
        const char* pair = text.data() + 3 * i;
        const auto [rest, error] = std::from_chars(pair, pair + 2, octets[i], 16);
        if (error != std::errc{} || rest != pair + 2 || (i < 5 && *rest != ':')) return std::nullopt;
    }
    return EthAddr{octets};
}

std::string EthAddr::text() const {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out(17, ':');
    for (std::size_t i = 0; i < octets_.size(); ++i) {
        out[3 * i] = digits[octets_[i] >> 4U];
        out[3 * i + 1] = digits[octets_[i] & 0xFU];
    }
    return out;
}
