/// Random lives of larger networks: what happens, and to which network, is decided by a number alone, so that
/// a life that goes wrong can be lived again.
#pragma once

#include "Plan/explore/Explore.h"

#include <cstdint>
#include <string>

namespace Plan {

struct WalkOptions {
    std::uint64_t steps = 1'000'000;  ///< acts, waits and rests not counted
    std::uint64_t seed = 1;           ///< of the first life; the others follow it
    unsigned copies = 2;
    Runtime::Duration limit{};  ///< 0: none
};

struct Walked {
    std::uint64_t steps = 0;
    std::uint64_t lives = 0;
    std::string network{};  ///< of the life that went wrong: its name (Small.h)
    std::string fault{};    ///< empty for none
    Story story{};          ///< the shortest that could be had
};

/// Some two hundred acts with waits, losses, and a rest every few of them.
Story lifeOf(const Network& network, std::uint64_t seed);

Walked walk(const WalkOptions& options, const Wrong& wrong = {});

std::string walkedText(const WalkOptions& options, const Walked& walked);

}  // namespace Plan
