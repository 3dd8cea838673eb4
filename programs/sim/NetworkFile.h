/// Files and words that the commands of `msrpsim` take.
#pragma once

#include "Plan/Network.h"

#include <filesystem>
#include <string>

/// The whole text of a file; empty, and why, where it cannot be read.
std::string readFile(const std::filesystem::path& path, std::string& problem);
/// Ends the program with all that is wrong with the file.
Plan::Network networkIn(const std::string& name);
Runtime::Duration spanOf(const char* option, const std::string& text);
