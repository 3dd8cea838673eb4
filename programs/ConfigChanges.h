/// Changes of the configuration, for people and programs.
#pragma once

#include "State/Difference.h"

#include <string>
#include <vector>

/// "msrp/cliConfig/srClassAPriority: 3 -> 4"
std::string changeText(const State::Difference& change);

/// The lines of an object as below, and what is to be said of none.
std::string changesText(const State::Value& changes);

/// An object by path, with what "was" and what "is"; null where there was or is nothing.
State::Value changesValue(const std::vector<State::Difference>& changes);
