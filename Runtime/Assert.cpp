#include "Runtime/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Runtime {

void assertionFailed(std::string_view text) {
    std::fprintf(stderr, "Assertion failed: %.*s\n", static_cast<int>(text.size()), text.data());
    std::fflush(stderr);
    std::abort();
}

}  // namespace Runtime
