/// A network as a picture: its devices, and each direction of each link by how full it is.
#pragma once

#include "Plan/Outcome.h"

#include <string>
#include <string_view>

namespace Plan {

/// For text and for values between double quotes, in SVG and in HTML.
std::string escaped(std::string_view text);

/// A whole SVG document, which needs nothing else, in the looks that whoever shows it prefers, dark or light.
/// Each direction is a `line` with its `data-way`, twice the number of the link and 1 for that from its
/// second end; each device a `g` with its `data-device`.
std::string drawing(const Network& network, const Outcome& outcome);

}  // namespace Plan
