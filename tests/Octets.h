/// Octets, also as hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using Octets = std::vector<std::uint8_t>;

inline Octets octets(const std::string& hex) {
    Octets out;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        out.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}
