/// `msrpctl --fleet`: what all bridges of a store have on record, wherever they are.
#pragma once

#include "Show/Page.h"
#include "programs/CommandLine.h"

#include <cstdint>
#include <optional>
#include <string>

struct FleetOptions {
    bool on = false;
    std::string store;  ///< address; empty: that of the daemon, with its password and the like
};

/// The words of the program, which reads them into `options`.
void addFleetWords(Words& words, FleetOptions& options);
/// All streams of all bridges, or one of them.
ExitCode showFleet(const std::string& socket, const FleetOptions& options, bool json, const Show::Page& page,
                   std::optional<std::uint64_t> stream);
