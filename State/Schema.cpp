#include "State/Schema.h"

#include <utility>

namespace State {

Schema orNull(Schema schema) {
    schema.nullable = true;
    return schema;
}

Schema mapOf(Schema key, Schema entry) {
    return {.type = "object", .keyAndEntry = {std::move(key), std::move(entry)}};
}

Schema objectOf(std::vector<std::pair<std::string, Schema>> fields) {
    return {.type = "object", .fields = std::move(fields)};
}

std::string numberPattern(std::uint64_t least, std::uint64_t most) {
    const std::string digits = std::to_string(most);
    const auto some = [](std::size_t count) {
        return count == 0 ? "" : "[0-9]{" + std::to_string(count) + '}';
    };
    // Fewer digits, or as many of which one is smaller and those before it are the same, or that very number.
    std::string choices = digits.size() > 1 ? "[0-9]{1," + std::to_string(digits.size() - 1) + "}|" : "";
    for (std::size_t same = 0; same < digits.size(); ++same) {
        if (digits[same] == '0') continue;
        const char below = static_cast<char>(digits[same] - 1);
        choices += digits.substr(0, same) + (below == '0' ? "0" : std::string{"[0-"} + below + ']') +
                   some(digits.size() - same - 1) + '|';
    }
    std::string pattern;
    for (std::uint64_t small = 0; small < least; ++small) pattern += "(?!0*" + std::to_string(small) + "$)";
    return pattern + "0*(" + choices + digits + ')';
}

}  // namespace State
