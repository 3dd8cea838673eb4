#include "Store/Reply.h"

#include <algorithm>
#include <array>

namespace Store {

namespace {
constexpr std::size_t longestLine = 200;
}  // namespace

bool temporary(const Reply& reply) {
    static constexpr std::array<std::string_view, 7> codes{"LOADING",  "MASTERDOWN",  "READONLY",  "BUSY",
                                                           "TRYAGAIN", "CLUSTERDOWN", "NOREPLICAS"};
    return reply.kind == Reply::Kind::error && std::any_of(codes.begin(), codes.end(), [&](auto code) {
               return reply.text.starts_with(code) &&
                      (reply.text.size() == code.size() || reply.text[code.size()] == ' ');
           });
}

std::string inOneLine(std::string_view text) {
    std::string line{text.substr(0, longestLine)};
    for (char& c : line) {
        // What is beyond ASCII may be cut in the middle of a character.
        if (c < ' ' || c > '~') c = '?';
    }
    if (text.size() > longestLine) line += "...";
    return line;
}

std::string inOneLine(const Reply& reply) {
    switch (reply.kind) {
        case Reply::Kind::text:
        case Reply::Kind::error:
            return inOneLine(reply.text);
        case Reply::Kind::number:
            return std::to_string(reply.number);
        case Reply::Kind::list:
            return "a list";
        case Reply::Kind::nothing:
            break;
    }
    return "nothing";
}

}  // namespace Store
