/// MVRP as the MRP engine sees it (IEEE 802.1Q clause 11): one attribute type, whose values are VLANs.
#pragma once

#include "Mrp/Application.h"

#include <cstdint>

namespace Mvrp {

/// 11.2.3.1.6
inline constexpr std::uint8_t typeVid = 1;

const Mrp::ApplicationInfo& application();

}  // namespace Mvrp
