/// The speed of a link as the kernel reports it.
#pragma once

#include "Linux/links/Device.h"
#include "Switch/Interface.h"

#include <cstdint>
#include <string>

namespace Linux {

/// The named speed that a link of so many Mbit/s can keep: the highest that is not above it.  Unknown below
/// 10 Mbit/s and for 0, which is unknown.
Interface::Speed namedSpeed(std::uint32_t megabitsPerSecond);

/// How the device of that name runs; nothing known where the kernel does not say.
LinkMode linkMode(const std::string& name);

/// Whether the device of that name heeds or sends pause frames; false where the kernel does not say.
bool flowControl(const std::string& name);

}  // namespace Linux
