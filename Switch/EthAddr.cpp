#include "Switch/EthAddr.h"

#include <charconv>
#include <cstdio>

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
    char buffer[18];
    std::snprintf(buffer, sizeof buffer, "%02x:%02x:%02x:%02x:%02x:%02x", octets_[0], octets_[1], octets_[2],
                  octets_[3], octets_[4], octets_[5]);
    return buffer;
}
