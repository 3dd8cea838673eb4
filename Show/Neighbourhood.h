/// Which ports of several bridges are the ends of one link.
#pragma once

#include "Switch/EthAddr.h"

#include <cstddef>
#include <vector>

namespace Show {

/// A port of one of several bridges: its own address, and that of whoever spoke last there (zero: nobody).
struct HeardPort {
    std::size_t bridge = 0;
    EthAddr own{};
    EthAddr heard{};
};

/// For each port those of other bridges that it may be joined to: both have heard the other's address.
/// Several where a bridge has one address for all of its ports.
std::vector<std::vector<std::size_t>> neighboursOf(const std::vector<HeardPort>& ports);

}  // namespace Show
