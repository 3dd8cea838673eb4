/// What lldpd knows of the neighbours, where it runs.
#pragma once

#include "State/Value.h"

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// What a program writes to its standard output; nothing when there is no such program, when it says that it
/// failed, or has not ended in time or within so many octets: then it is killed.
std::optional<std::string> outputOf(const std::vector<std::string>& command, std::chrono::milliseconds atMost,
                                    std::size_t octets);

/// Of `lldpctl -f json`, arrays as numbered objects; null when there is nothing to be had within two seconds.
State::Value lldpNeighbours();
