/// Networks drawn in tests.
#pragma once

#include "Plan/Reader.h"

#include <stdexcept>
#include <string>

namespace Plan {

/// `csv` is the text of whatever other file it names.
inline Network read(const std::string& dot, const std::string& csv, Problems& problems) {
    return readNetwork(
        dot, "net.dot", [&](const std::string&, std::string&) { return csv; }, problems);
}

/// One that is in order.
inline Network read(const std::string& dot) {
    Problems problems;
    Network network = read(dot, {}, problems);
    if (!problems.empty()) throw std::invalid_argument{problems.front()};
    return network;
}

}  // namespace Plan
