/// Text from the pieces that traces and log lines are made of.
#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <type_traits>

namespace Runtime {

inline void append(std::string& out, std::string_view piece) { out += piece; }
inline void append(std::string& out, const char* piece) { out += piece; }
inline void append(std::string& out, char piece) { out += piece; }
inline void append(std::string& out, bool piece) { out += piece ? "true" : "false"; }
template <class T>
requires(std::integral<T> || std::floating_point<T>) void append(std::string& out, T piece) {
    out += std::to_string(piece);
}
/// Anything that has a `text()` of its own: ports, addresses.
template <class T>
requires requires(const T& t) {
    { t.text() } -> std::convertible_to<std::string_view>;
}
void append(std::string& out, const T& piece) { out += piece.text(); }

template <class... Pieces>
std::string concat(const Pieces&... pieces) {
    std::string out;
    (append(out, pieces), ...);
    return out;
}

}  // namespace Runtime
