/// What a fuzz target holds the code to.
#pragma once

#include "Runtime/Assert.h"
#include "Runtime/Text.h"

namespace Fuzz {

/// Ends the process with the pieces as its last words unless `holds`; the fuzzer then keeps the input.
template <class... Pieces>
void check(bool holds, const Pieces&... pieces) {
    if (!holds) [[unlikely]]
        Runtime::assertionFailed(Runtime::concat(pieces...));
}

}  // namespace Fuzz
