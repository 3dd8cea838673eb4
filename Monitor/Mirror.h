/// What a monitoring program knows of a running daemon: its records, fetched when somebody asks for them, but
/// no more often than the daemon can well afford.
///
/// The next fetch begins a second after the last one at the earliest, and not before nine times as long has
/// passed since as that one took: so all who ask, however often, take no more than a tenth of the daemon's
/// time. Who asks in between gets what is there.  A daemon that is away is looked for as often.
#pragma once

#include "Runtime/Loop.h"
#include "Show/Snapshot.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Monitor {

/// A field of a record, or all of it where the field is empty.  What is fetched of one record becomes one
/// value.
struct Wanted {
    std::string record;
    std::string field{};
};

class Mirror {
public:
    static constexpr Runtime::Duration shortestPause = std::chrono::seconds{1};
    static constexpr Runtime::Duration longestSearch = std::chrono::seconds{10};
    /// Seconds that all answers together may take before the daemon counts as away; the one that it comes to
    /// an end in may take one more.
    static constexpr unsigned patience = 5;

    /// `loop` only tells the time.
    Mirror(const Runtime::Loop& loop, std::string socket, std::vector<Wanted> wanted)
        : loop_{loop}, socket_{std::move(socket)}, wanted_{std::move(wanted)} {}

    /// The records, or null while the daemon is away.  May wait for it; what was given before is void then.
    const Show::Snapshot* fresh();

    /// Another one after each fetch, successful or not.
    [[nodiscard]] std::uint64_t fetches() const { return fetches_; }
    [[nodiscard]] std::uint64_t failures() const { return failures_; }
    /// Of the last fetch.
    [[nodiscard]] Runtime::Duration took() const { return took_; }
    /// Why there are no records; empty while there are.
    [[nodiscard]] const std::string& problem() const { return problem_; }

private:
    /// Empty on success.
    std::string fetch(Show::Snapshot& snapshot) const;

    const Runtime::Loop& loop_;
    const std::string socket_;
    const std::vector<Wanted> wanted_;
    std::optional<Show::Snapshot> snapshot_;
    std::string problem_;
    Runtime::Time notBefore_{};
    Runtime::Duration took_{};
    std::uint64_t fetches_ = 0;
    std::uint64_t failures_ = 0;
};

}  // namespace Monitor
