/// What a Redis server answers, as a plain value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Store {

struct Reply {
    enum class Kind { nothing, text, number, list, error };

    Kind kind = Kind::nothing;
    std::string text;           ///< of a text, any octets; or of an error
    std::int64_t number = 0;    ///< of a number
    std::vector<Reply> list{};  ///< of a list

    [[nodiscard]] bool isText(std::string_view expected) const {
        return kind == Kind::text && text == expected;
    }
    bool operator==(const Reply&) const = default;
};

/// Whether it is an error that passes by waiting or with another server: one that still reads its data, that
/// is no master (any more), or that is busy.
bool temporary(const Reply& reply);

/// What a server said, fit for a log: control characters are made visible, and what is long is cut.
std::string inOneLine(std::string_view text);

/// What a reply is, in a few words for a log: its text if it is one or an error, else what kind it is.
std::string inOneLine(const Reply& reply);

}  // namespace Store
