/// The speed of a link as the kernel reports it.
#pragma once

#include "Linux/links/Device.h"

#include <string>

namespace Linux {

/// How the device of that name runs; nothing known where the kernel does not say.
LinkMode linkMode(const std::string& name);

/// Whether the device of that name heeds or sends pause frames; false where the kernel does not say.
bool flowControl(const std::string& name);

}  // namespace Linux
