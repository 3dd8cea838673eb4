/// Files and words that the commands of `msrpsim` take.
#pragma once

#include "Plan/Network.h"

#include <filesystem>
#include <string>

/// The whole text of a file; empty, and why, where it cannot be read.
std::string readFile(const std::filesystem::path& path, std::string& problem);
/// Puts the text in the place of the file, or leaves that as it was and ends the program with the reason.
void writeWhole(const std::string& name, const std::string& text);
/// Ends the program with all that is wrong with the file.
Plan::Network networkIn(const std::string& name);
Runtime::Duration spanOf(const char* option, const std::string& text);
