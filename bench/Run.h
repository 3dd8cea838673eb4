/// How much a run does: what is to be measured, or, with MSRP_BENCH_SHORT in the environment, just enough to
/// see that each benchmark still works; its figures mean nothing then.
#pragma once

#include "Runtime/Time.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>

namespace Bench {

inline bool isShort() { return std::getenv("MSRP_BENCH_SHORT") != nullptr; }
/// So many streams, attributes or rounds, or a few.
inline std::size_t many(std::size_t count) {
    return isShort() ? std::clamp<std::size_t>(count / 100, 1, 100) : count;
}
/// For so long, or a moment.
inline Runtime::Duration lasting(Runtime::Duration span) { return isShort() ? span / 10 : span; }

}  // namespace Bench
