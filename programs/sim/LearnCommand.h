/// `msrpsim learn`: draws the network that running daemons are part of.
#pragma once

#include "programs/CommandLine.h"

#include <string>
#include <vector>

struct LearnCommand {
    std::vector<std::string> sockets{};  ///< "SOCKET" or "NAME=SOCKET"; none: that of this machine
    std::vector<std::string> links{};    ///< "sw1:swp2--sw2:swp1"
    std::string out{};                   ///< file to be written; empty: standard output

    [[nodiscard]] ExitCode run() const;
};
