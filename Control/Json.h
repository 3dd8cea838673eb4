/// Record values as JSON text (RFC 8259) and back.
///
/// Whole numbers keep all of their 64 bits, other numbers come back as the same double.  Nothing in a record
/// is a list, so arrays are refused; what other programs write can be read all the same.
#pragma once

#include "State/Value.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Control {

/// On one line.
std::string jsonText(const State::Value& value);
void appendJson(std::string& out, const State::Value& value);
void appendJsonString(std::string& out, std::string_view text);
/// One member on each line, indented by two blanks; no newline at the end.
std::string jsonLines(const State::Value& value);

/// Where reading stopped, counted from 1 in octets, and why.
struct JsonProblem {
    std::size_t line = 1;
    std::size_t column = 1;
    std::string what;
};

struct JsonResult {
    State::Value value;
    std::optional<JsonProblem> problem;
};

enum class JsonComments { refused, allowed };
/// What becomes of arrays: nothing, or objects whose names are the places, from "0" on.
enum class JsonArrays { refused, numbered };

/// Reads exactly one value.  A name that comes twice in one object is a problem, as is nesting deeper
/// than 64. `allowed` skips // and /* */ comments.
JsonResult parseJson(std::string_view text, JsonComments comments = JsonComments::refused,
                     JsonArrays arrays = JsonArrays::refused);

}  // namespace Control
