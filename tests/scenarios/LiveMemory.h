/// How much of the heap is in use.
#pragma once

#include <cstddef>

/// Octets that were allocated and not given back yet.
std::size_t liveOctets();
