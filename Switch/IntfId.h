/// Port identifier.  A small number inside, the interface name outside.
#pragma once

#include "State/Codec.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

/// Names an Ethernet interface of the switch.  The default value names none.
class IntfId {
public:
    /// Longest name that Linux gives an interface.
    static constexpr std::size_t maxNameLength = 15;

    constexpr IntfId() = default;
    /// The identifier of that name; the same name always gives the same identifier.  Names are kept for ever.
    explicit IntfId(std::string_view name);

    /// True for a name that an interface can have: 1 to 15 characters, no '/' and no white space.
    static bool validName(std::string_view name);

    [[nodiscard]] const std::string& name() const;
    [[nodiscard]] const std::string& text() const { return name(); }
    [[nodiscard]] std::uint32_t number() const { return number_; }
    [[nodiscard]] explicit constexpr operator bool() const { return number_ != 0; }
    /// In the order in which the names were first seen.
    auto operator<=>(const IntfId&) const = default;

private:
    std::uint32_t number_ = 0;
};

/// A line of the system log that names a port is about that port.
inline std::string_view logSubject(const IntfId& id) { return id.name(); }

template <>
struct std::hash<IntfId> {
    std::size_t operator()(IntfId id) const noexcept { return id.number(); }
};

template <>
struct State::KeyText<IntfId> {
    static std::string text(IntfId id) { return id.name(); }
    static std::optional<IntfId> parse(std::string_view t) {
        // A star stands for all of them, where that may be said.
        if (!IntfId::validName(t) || t == "*") return std::nullopt;
        return IntfId{t};
    }
    static std::string expected() { return "an interface name (1 to 15 characters without blanks or '/')"; }
    static Schema schema() {
        return {.type = "string", .pattern = R"(^(?!(\.{1,2}|\*)$)[^/\s\x00-\x1f\x7f]{1,15}$)"};
    }
};

template <>
struct State::Codec<IntfId> {
    static constexpr std::string_view typeName = "intf";
    static Value encode(IntfId id) { return Value{id.name()}; }
    static std::optional<IntfId> decode(const Value& v) {
        const auto* s = std::get_if<std::string>(&v.data);
        if (s == nullptr) return std::nullopt;
        return s->empty() ? IntfId{} : KeyText<IntfId>::parse(*s);
    }
    static std::string expected() { return KeyText<IntfId>::expected(); }
    static Schema schema() { return {.type = "string"}; }
};
