/// `msrpsim explore` and `msrpsim walk`: whether anything is lost, whatever happens to networks.
#pragma once

#include "programs/CommandLine.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

class ExploreCommand {
public:
    void addTo(Program& program);

private:
    [[nodiscard]] ExitCode explore() const;
    [[nodiscard]] ExitCode walk() const;

    std::vector<std::string> networks_{};
    std::string story_{};
    std::string limit_{"0s"};
    std::uint64_t depth_ = 2;
    std::uint64_t burst_ = 2;
    std::uint64_t mishaps_ = 1;
    std::uint64_t steps_ = 1'000'000;
    std::uint64_t seed_ = 1;
    std::uint64_t jobs_ = std::max(1U, std::thread::hardware_concurrency());
};
