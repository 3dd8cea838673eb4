#include "Runtime/Assert.h"

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>

namespace Runtime {

void assertionFailed(std::string_view text) {
    // Whoever should read it may not: the process ends all the same.
    constexpr int patience = 500;  // ms
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&ready, 1, patience) == 1)
        std::fprintf(stderr, "Assertion failed: %.*s\n", static_cast<int>(text.size()), text.data());
    std::abort();
}

}  // namespace Runtime
