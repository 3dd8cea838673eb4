/// The switch's value types with a range.  Building one from a value outside its range throws
/// `std::range_error` with a fixed text.
#pragma once

#include "State/Codec.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

/// A number from `min` to `max`; `Tag::error` is the text of the range error.
template <class Tag, class T, T minimum, T maximum>
class Ranged {
public:
    static constexpr T min = minimum;
    static constexpr T max = maximum;

    constexpr Ranged() = default;
    explicit constexpr Ranged(std::uint64_t value) : value_{static_cast<T>(value)} {
        if (!inRange(value)) throw std::range_error(Tag::error);
    }
    static constexpr bool inRange(std::uint64_t value) { return value >= minimum && value <= maximum; }

    [[nodiscard]] constexpr T value() const { return value_; }
    [[nodiscard]] std::string text() const { return std::to_string(value_); }
    auto operator<=>(const Ranged&) const = default;

private:
    T value_ = minimum;
};

struct VlanIdTag {
    static constexpr const char* error = "VlanId::value < 1 or > 4094 not allowed";
};
struct CosTag {
    static constexpr const char* error = "Cos::value < Cos::min or > Cos::invalid not allowed";
};
struct TrafficClassTag {
    static constexpr const char* error =
        "TrafficClass::value < TrafficClass::min or > TrafficClass::invalid not allowed";
};
struct ShapeRateValTag {
    static constexpr const char* error =
        "ShapeRateVal::value < ShapeRateVal::min or > ShapeRateVal::invalid not allowed";
};

/// VLAN identifier of IEEE 802.1Q, 1 to 4094.
using VlanId = Ranged<VlanIdTag, std::uint16_t, 1, 4094>;
/// Priority code point; 8 stands for "invalid".
using Cos = Ranged<CosTag, std::uint8_t, 0, 8>;
/// Traffic class; 16 stands for "invalid".
using TrafficClass = Ranged<TrafficClassTag, std::uint8_t, 0, 16>;
/// Shape rate in kbit/s; 600000001 stands for "not set".
using ShapeRateVal = Ranged<ShapeRateValTag, std::uint32_t, 1, 600'000'001>;

inline constexpr std::uint8_t invalidTrafficClass = TrafficClass::max;
inline constexpr std::uint32_t invalidShapeRate = ShapeRateVal::max;

template <class Tag, class T, T minimum, T maximum>
struct State::KeyText<Ranged<Tag, T, minimum, maximum>> {
    using R = Ranged<Tag, T, minimum, maximum>;
    static std::string text(R r) { return r.text(); }
    static std::optional<R> parse(std::string_view t) {
        const auto n = parseDecimal(t, maximum);
        return n && R::inRange(*n) ? std::optional<R>{R{*n}} : std::nullopt;
    }
    static std::string expected() {
        return "a whole number from " + std::to_string(minimum) + " to " + std::to_string(maximum);
    }
    static Schema schema() {
        return {.type = "string", .pattern = '^' + numberPattern(minimum, maximum) + '$'};
    }
};

template <class Tag, class T, T minimum, T maximum>
struct State::Codec<Ranged<Tag, T, minimum, maximum>> {
    using R = Ranged<Tag, T, minimum, maximum>;
    static constexpr std::string_view typeName = Codec<T>::typeName;
    static Value encode(R r) { return Codec<T>::encode(r.value()); }
    static std::optional<R> decode(const Value& v) {
        const auto* n = std::get_if<std::uint64_t>(&v.data);
        return n != nullptr && R::inRange(*n) ? std::optional<R>{R{*n}} : std::nullopt;
    }
    static std::string expected() { return KeyText<R>::expected(); }
    static Schema schema() {
        return {.type = "integer", .least = encode(R{minimum}), .most = encode(R{maximum})};
    }
};
