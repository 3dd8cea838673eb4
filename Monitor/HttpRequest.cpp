#include "Monitor/HttpRequest.h"

#include <algorithm>
#include <cctype>

namespace Monitor {

namespace {

std::string_view until(std::string_view& rest, std::string_view end) {
    const std::size_t at = rest.find(end);
    const std::string_view found = rest.substr(0, at);
    rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + end.size());
    return found;
}

bool sameWord(std::string_view a, std::string_view b) {
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

/// A line without its end: a single line feed is taken for one as well (RFC 9112 2.2).
std::string_view line(std::string_view& rest) {
    std::string_view found = until(rest, "\n");
    if (found.ends_with('\r')) found.remove_suffix(1);
    return found;
}

bool namesHost(std::string_view fields) {
    while (!fields.empty()) {
        std::string_view field = line(fields);
        if (sameWord(until(field, ":"), "host")) return true;
    }
    return false;
}

}  // namespace

std::size_t headLength(std::string_view received, std::size_t fresh) {
    // An end has three octets at most.
    const std::size_t from = received.size() - std::min(fresh + 2, received.size());
    for (std::size_t at = received.find('\n', from); at != std::string_view::npos;
         at = received.find('\n', at + 1)) {
        const std::string_view next = received.substr(at + 1, 2);
        if (next.starts_with('\n')) return at + 2;
        if (next == "\r\n") return at + 3;
    }
    return 0;
}

HttpRequest parseHttpRequest(std::string_view head) {
    std::string_view words = line(head);
    const std::string_view method = until(words, " ");
    std::string_view target = until(words, " ");
    const std::string_view version = words;
    if (!version.starts_with("HTTP/")) return {.problem = 400};
    if (version != "HTTP/1.1" && version != "HTTP/1.0") return {.problem = 505};
    if (version == "HTTP/1.1" && !namesHost(head)) return {.problem = 400};
    if (method != "GET" && method != "HEAD") return {.problem = 405};
    if (target.starts_with("http://")) {  // RFC 9112 3.2.2
        target.remove_prefix(7);
        target.remove_prefix(std::min(target.find('/'), target.size()));
    }
    if (!target.starts_with('/')) return {.problem = 400};
    return {.headOnly = method == "HEAD", .path = std::string{until(target, "?")}};
}

}  // namespace Monitor
