/// How a C++ type of a record field becomes a `Value` and back, and how a type that keys a collection becomes
/// text and back.  A value type of another room joins by specialising `Codec` or `KeyText` beside its
/// definition; an enumeration joins by a function `enumNames(E)` that lists its names.
#pragma once

#include "State/Schema.h"
#include "State/Value.h"

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace State {

/// One enumerator and its name.
template <class E>
struct EnumName {
    E value;
    std::string_view name;
};

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires(E e) {
    { enumNames(e) } -> std::convertible_to<std::span<const EnumName<E>>>;
};

/// The enumerator's name, or its number when it has none.
template <NamedEnum E>
std::string enumText(E value) {
    for (const auto& entry : std::span<const EnumName<E>>{enumNames(value)}) {
        if (entry.value == value) return std::string{entry.name};
    }
    return std::to_string(static_cast<long long>(value));
}

template <class T>
struct Codec;

template <>
struct Codec<bool> {
    static constexpr std::string_view typeName = "bool";
    static Value encode(bool v) { return Value{v}; }
    static std::optional<bool> decode(const Value& v) {
        if (const bool* b = std::get_if<bool>(&v.data)) return *b;
        return std::nullopt;
    }
    static std::string expected() { return "true or false"; }
    static Schema schema() { return {.type = "boolean"}; }
};

template <class T>
concept Unsigned = std::unsigned_integral<T> && !std::same_as<T, bool>;

template <Unsigned T>
struct Codec<T> {
    static constexpr std::string_view typeName = sizeof(T) == 1   ? "u8"
                                                 : sizeof(T) == 2 ? "u16"
                                                 : sizeof(T) == 4 ? "u32"
                                                                  : "u64";
    static Value encode(T v) { return Value{static_cast<std::uint64_t>(v)}; }
    static std::optional<T> decode(const Value& v) {
        const auto* n = std::get_if<std::uint64_t>(&v.data);
        if (n == nullptr || *n > std::numeric_limits<T>::max()) return std::nullopt;
        return static_cast<T>(*n);
    }
    static std::string expected() {
        return "a whole number from 0 to " + std::to_string(std::numeric_limits<T>::max());
    }
    static Schema schema() {
        return {.type = "integer", .least = encode(0), .most = encode(std::numeric_limits<T>::max())};
    }
};

template <>
struct Codec<double> {
    static constexpr std::string_view typeName = "double";
    static Value encode(double v) { return Value{v}; }
    static std::optional<double> decode(const Value& v) {
        if (const auto* d = std::get_if<double>(&v.data)) return *d;
        if (const auto* u = std::get_if<std::uint64_t>(&v.data)) return static_cast<double>(*u);
        if (const auto* i = std::get_if<std::int64_t>(&v.data)) return static_cast<double>(*i);
        return std::nullopt;
    }
    static std::string expected() { return "a number"; }
    static Schema schema() { return {.type = "number"}; }
};

template <>
struct Codec<std::string> {
    static constexpr std::string_view typeName = "string";
    static Value encode(const std::string& v) { return Value{v}; }
    static std::optional<std::string> decode(const Value& v) {
        if (const auto* s = std::get_if<std::string>(&v.data)) return *s;
        return std::nullopt;
    }
    static std::string expected() { return "a text in double quotes"; }
    static Schema schema() { return {.type = "string"}; }
};

template <NamedEnum E>
struct Codec<E> {
    static constexpr std::string_view typeName = "enum";
    static Value encode(E v) { return Value{enumText(v)}; }
    static std::optional<E> decode(const Value& v) {
        if (const auto* s = std::get_if<std::string>(&v.data)) {
            for (const auto& entry : std::span<const EnumName<E>>{enumNames(E{})}) {
                if (entry.name == *s) return entry.value;
            }
        }
        return std::nullopt;
    }
    /// Also the zero of an enumeration that has no name for it, as `encode` writes it.
    static std::optional<E> decodeWithZero(const Value& v) {
        const auto named = decode(v);
        return named || v != encode(E{}) ? named : std::optional{E{}};
    }
    static std::string expected() {
        std::string list = "one of";
        for (const auto& entry : std::span<const EnumName<E>>{enumNames(E{})}) {
            list += " \"" + std::string{entry.name} + '"';
        }
        return list;
    }
    static Schema schema() {
        Schema schema{.type = "string"};
        for (const auto& entry : std::span<const EnumName<E>>{enumNames(E{})})
            schema.names.emplace_back(entry.name);
        return schema;
    }
};

// What is only shown needs no more than these two.

template <>
struct Codec<std::string_view> {
    static Value encode(std::string_view v) { return Value{v}; }
    static Schema schema() { return {.type = "string"}; }
};

/// Null where there is nothing.
template <class T>
struct Codec<std::optional<T>> {
    static Value encode(const std::optional<T>& v) { return v ? Codec<T>::encode(*v) : Value{}; }
    static Schema schema() { return orNull(Codec<T>::schema()); }
};

/// An object of things by their names.
template <class T>
struct Codec<std::vector<std::pair<std::string, T>>> {
    static Value encode(const std::vector<std::pair<std::string, T>>& v) {
        Object all;
        for (const auto& [name, entry] : v) all.emplace_back(name, Codec<T>::encode(entry));
        return all;
    }
    static Schema schema() { return mapOf({.type = "string"}, Codec<T>::schema()); }
};

/// Decimal number, whole text, nothing else.
std::optional<std::uint64_t> parseDecimal(std::string_view text, std::uint64_t max);
/// "0x" and one to sixteen hexadecimal digits.
std::optional<std::uint64_t> parseHex(std::string_view text);
/// "0x" and upper-case digits without leading zeros.
std::string hexText(std::uint64_t value);

/// Text form of a key type.
template <class K>
struct KeyText;

template <>
struct KeyText<std::string> {
    static std::string text(const std::string& k) { return k; }
    static std::optional<std::string> parse(std::string_view t) { return std::string{t}; }
    static std::string expected() { return "a name"; }
    static Schema schema() { return {.type = "string"}; }
};

template <Unsigned K>
struct KeyText<K> {
    static std::string text(K k) { return std::to_string(k); }
    static std::optional<K> parse(std::string_view t) {
        if (auto n = parseDecimal(t, std::numeric_limits<K>::max())) return static_cast<K>(*n);
        return std::nullopt;
    }
    static std::string expected() { return Codec<K>::expected(); }
    static Schema schema() {
        return {.type = "string", .pattern = '^' + numberPattern(0, std::numeric_limits<K>::max()) + '$'};
    }
};

template <NamedEnum E>
struct KeyText<E> {
    static std::string text(E k) { return enumText(k); }
    static std::optional<E> parse(std::string_view t) { return Codec<E>::decode(Value{t}); }
    static std::string expected() { return Codec<E>::expected(); }
    static Schema schema() { return Codec<E>::schema(); }
};

/// Key form of stream ids: "0x…" in hexadecimal.
struct HexKey {
    static std::string text(std::uint64_t k) { return hexText(k); }
    static std::optional<std::uint64_t> parse(std::string_view t) { return parseHex(t); }
    static std::string expected() { return "\"0x\" and hexadecimal digits"; }
    static Schema schema() { return {.type = "string", .pattern = "^0x[0-9A-Fa-f]{1,16}$"}; }
};

}  // namespace State
