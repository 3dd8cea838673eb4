/// Which way a port's queues are shaped: the best one that the operator allows and that works there.
#pragma once

#include "Linux/records/CapabilityStatus.h"
#include "Linux/records/Config.h"

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

/// What counts of a port.
struct PortTraits {
    unsigned txQueues = 1;
    /// A switch chip forwards its frames, which pass by all that the kernel does itself.
    bool inSwitchChip = false;
    /// Frames are sorted into queues that are shaped by credits by filters of ours, where they come in.
    bool tagsChoose = true;
};

ShaperChoice chooseShaper(Shaping allowed, const Abilities& abilities, const PortTraits& port,
                          const ShaperRefusals& refusals);
/// Whether the kernel lacks something, or may lack it, that a better way of shaping some port would take.
bool lacksAbility(Shaping allowed, const Abilities& abilities);

}  // namespace Linux
