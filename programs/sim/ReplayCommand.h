/// `msrpsim replay`: captured frames of a bridge beside what an agent of ours says in its place.
#pragma once

#include "programs/CommandLine.h"

#include <string>
#include <vector>

struct ReplayCommand {
    std::vector<std::string> captures{};
    std::vector<std::string> configs{};
    std::vector<std::string> ports{};
    std::vector<std::string> bridges{};
    std::string out{};

    /// `refused` where something differs or a capture is broken.
    [[nodiscard]] ExitCode run(bool json) const;
};
