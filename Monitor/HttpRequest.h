/// The head of an HTTP request (RFC 9112), as far as a server of texts must understand it.
#pragma once

#include <string>
#include <string_view>

namespace Monitor {

struct HttpRequest {
    int problem = 0;        ///< the status that says what is wrong with it; 0: nothing is
    bool headOnly = false;  ///< the answer's body is not wanted
    std::string path{};     ///< what was asked for, without a query
};

/// Octets of the head, its empty line included; 0 while that has not come.  `fresh`: how many octets have
/// come since it was asked last; all by default.
std::size_t headLength(std::string_view received, std::size_t fresh = std::string_view::npos - 2);
/// `head` ends with its empty line.
HttpRequest parseHttpRequest(std::string_view head);

}  // namespace Monitor
