/// The speed of a link as the kernel reports it.
#pragma once

#include "Switch/Interface.h"

#include <cstdint>
#include <string>

namespace Linux {

/// The named speed that a link of so many Mbit/s can keep: the highest that is not above it.  Unknown below
/// 10 Mbit/s and for the kernel's "unknown" (all ones).
Interface::Speed namedSpeed(std::uint32_t megabitsPerSecond);

/// Asks the kernel.  Unknown when it does not know, and for a half-duplex link: on one of those nobody can
/// promise a stream its share.
Interface::Speed kernelSpeed(const std::string& interface);

}  // namespace Linux
