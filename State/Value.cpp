#include "State/Value.h"

namespace State {

const Value* Value::member(std::string_view name) const {
    const Value* found = nullptr;
    if (const Object* members = object()) {
        for (const auto& [key, value] : *members) {
            if (key == name) found = &value;
        }
    }
    return found;
}

std::string text(const Value& value) {
    struct Printer {
        std::string operator()(std::monostate) const { return "null"; }
        std::string operator()(bool v) const { return v ? "true" : "false"; }
        std::string operator()(std::uint64_t v) const { return std::to_string(v); }
        std::string operator()(std::int64_t v) const { return std::to_string(v); }
        std::string operator()(double v) const { return std::to_string(v); }
        std::string operator()(const std::string& v) const { return '"' + v + '"'; }
        std::string operator()(const Object&) const { return "{...}"; }
    };
    return std::visit(Printer{}, value.data);
}

Problem Problem::below(std::string_view name) const {
    return {where.empty() ? std::string{name} : std::string{name} + "/" + where, what};
}

}  // namespace State
