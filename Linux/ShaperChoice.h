/// Which way a port's queues are shaped: the best one that the operator allows and that works there.
#pragma once

#include "Linux/CapabilityStatus.h"
#include "Linux/Config.h"

#include <array>
#include <string>

namespace Linux {

/// What the kernel said when a way was tried on a port, in the order of `Shaper`; empty: it may work.
using ShaperRefusals = std::array<std::string, 3>;

struct ShaperChoice {
    Shaper shaper = Shaper::none;
    std::string why;  ///< why no better way
    bool operator==(const ShaperChoice&) const = default;
};

/// `txQueues` is the port's number of transmit queues.
ShaperChoice chooseShaper(Shaping allowed, const Abilities& abilities, unsigned txQueues,
                          const ShaperRefusals& refusals);

}  // namespace Linux
