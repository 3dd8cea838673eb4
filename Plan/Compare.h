/// Questions that take several runs: what differs between two networks, and how many more streams fit.
#pragma once

#include "Plan/Outcome.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Plan {

/// A network that has come to rest, or not in time.
using Run = std::function<Outcome(const Network& network)>;

/// By the names of streams, stations and devices; empty where both come to the same.
struct Differences {
    std::vector<std::string> streams{};
    std::vector<std::string> links{};
};
Differences compare(const Network& was, const Outcome& before, const Network& is, const Outcome& after);
std::string differencesText(const Differences& differences);
State::Value differencesValue(const Differences& differences);

/// How many streams like that one fit beside all others, each to all of its listeners; at most `most`.
struct Fit {
    std::uint64_t count = 0;
    bool all = false;  ///< `most` of them: there may be room for more
    /// What keeps the next one back.
    std::string stream{};
    std::string listener{};
    std::string device{};
    std::string port{};
    std::string reason{};
};
/// Nothing, and why, where streams that are there already do not fit.
std::optional<Fit> fit(const Network& network, std::size_t stream, std::uint64_t most, const Run& run,
                       std::string& problem);
std::string fitText(const Network& network, std::size_t stream, const Fit& fit);
State::Value fitValue(const Fit& fit);

}  // namespace Plan
