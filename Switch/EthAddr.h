/// 48-bit MAC address.
#pragma once

#include "Runtime/BigEndian.h"
#include "State/Codec.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class EthAddr {
public:
    constexpr EthAddr() = default;
    explicit constexpr EthAddr(const std::array<std::uint8_t, 6>& octets) : octets_{octets} {}
    /// From the low 48 bits; the first octet on the wire is the most significant.
    static constexpr EthAddr fromNumber(std::uint64_t number) {
        EthAddr a;
        Runtime::bigEndianIs(a.octets_, number);
        return a;
    }
    /// Six pairs of hexadecimal digits joined by colons.
    static std::optional<EthAddr> parse(std::string_view text);

    [[nodiscard]] constexpr std::uint64_t number() const { return Runtime::bigEndian(octets_); }
    [[nodiscard]] constexpr const std::array<std::uint8_t, 6>& octets() const { return octets_; }
    /// The group bit: the lowest bit of the first octet.
    [[nodiscard]] constexpr bool isMulticast() const { return (octets_[0] & 1U) != 0; }
    /// "91:e0:f0:00:fe:01"
    [[nodiscard]] std::string text() const;
    bool operator==(const EthAddr&) const = default;
    constexpr auto operator<=>(const EthAddr& other) const { return number() <=> other.number(); }

private:
    std::array<std::uint8_t, 6> octets_{};
};

template <>
struct State::KeyText<EthAddr> {
    static std::string text(const EthAddr& a) { return a.text(); }
    static std::optional<EthAddr> parse(std::string_view t) { return EthAddr::parse(t); }
    static std::string expected() { return "an address like 91:e0:f0:00:fe:01"; }
    static Schema schema() { return {.type = "string", .pattern = "^[0-9A-Fa-f]{2}(:[0-9A-Fa-f]{2}){5}$"}; }
};

template <>
struct State::Codec<EthAddr> {
    static constexpr std::string_view typeName = "address";
    static Value encode(const EthAddr& a) { return Value{a.text()}; }
    static std::optional<EthAddr> decode(const Value& v) {
        const auto* s = std::get_if<std::string>(&v.data);
        return s == nullptr ? std::nullopt : EthAddr::parse(*s);
    }
    static std::string expected() { return KeyText<EthAddr>::expected(); }
    static Schema schema() { return KeyText<EthAddr>::schema(); }
};
