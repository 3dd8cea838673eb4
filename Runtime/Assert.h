/// Assertions: our own broken promises.  They print their text and end the process; nothing that a peer or an
/// operator sends may reach one.
#pragma once

#include <string_view>

namespace Runtime {

/// Writes "Assertion failed: " and `text` to standard error, then aborts.
[[noreturn]] void assertionFailed(std::string_view text);

/// Ends the process with `text` unless `holds`.
inline void require(bool holds, std::string_view text) {
    if (!holds) [[unlikely]]
        assertionFailed(text);
}

}  // namespace Runtime
