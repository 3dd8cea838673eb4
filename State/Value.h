/// A value of any record field in a form that knows no C++ type: what a configuration file, the control
/// socket, an external store and a test expectation all speak.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace State {

struct Value;

/// Members in the order in which they were written; a later member of the same name wins.
using Object = std::vector<std::pair<std::string, Value>>;

struct Value {
    using Data = std::variant<std::monostate, bool, std::uint64_t, std::int64_t, double, std::string, Object>;

    Value() = default;
    Value(bool v) : data{v} {}
    Value(std::uint64_t v) : data{v} {}
    Value(std::int64_t v) : data{v} {}
    Value(double v) : data{v} {}
    Value(std::string v) : data{std::move(v)} {}
    Value(std::string_view v) : data{std::string{v}} {}
    Value(const char* v) : data{std::string{v}} {}
    Value(Object v) : data{std::move(v)} {}

    [[nodiscard]] bool isNull() const { return std::holds_alternative<std::monostate>(data); }
    [[nodiscard]] const Object* object() const { return std::get_if<Object>(&data); }

    /// The member of that name, or null when this is no object or has none.
    [[nodiscard]] const Value* member(std::string_view name) const;

    bool operator==(const Value&) const = default;

    Data data;
};

/// One line of text, for error messages: strings in double quotes, objects as "{...}".
std::string text(const Value& value);

/// What is wrong with a value that somebody offered, and where below the record it stands.
struct Problem {
    std::string where;  ///< field and keys, joined by '/'; empty for the record itself
    std::string what;

    /// "where: what"
    [[nodiscard]] std::string text() const { return where.empty() ? what : where + ": " + what; }
    /// The same problem seen from one level higher.
    [[nodiscard]] Problem below(std::string_view name) const;
};

using MaybeProblem = std::optional<Problem>;

}  // namespace State
