/// How long an agent may act on what it knows of its lease, and when it may take another's.  Times are those
/// of its own clock, which does not stop and is not set; nothing here reads one.
#pragma once

#include "Runtime/Time.h"

#include <algorithm>
#include <optional>
#include <string>

namespace Store {

class Term {
public:
    using Duration = Runtime::Duration;
    using Time = Runtime::Time;

    explicit Term(Duration lease) : lease_{lease} {}

    /// The store has said that the role is ours, or nobody can have asked it for the role at that time: it
    /// was not running.  `asked`: when the question began, which is never after the store's own count of the
    /// lease.
    void held(Time asked) { until_ = std::max(until_.value_or(asked + span()), asked + span()); }
    /// The role is somebody else's.
    void lost() { until_.reset(); }

    /// What the store says of the lease, by an answer that came `now`.
    void saw(const std::string& lease, Time now) {
        if (unchangedSince_ && lease == seen_) return;
        seen_ = lease;
        unchangedSince_ = now;
    }
    /// The store cannot be asked: what is seen next may have changed just then.
    void silent() { unchangedSince_.reset(); }
    [[nodiscard]] const std::string& seen() const { return seen_; }

    [[nodiscard]] bool acting(Time now) const { return until_ && now < *until_; }
    /// The end of it, as far as is known.
    [[nodiscard]] std::optional<Time> until() const { return until_; }
    /// Whoever kept this lease last did so before it was first seen, and does not act any more.  Empty while
    /// that is not known of any.
    [[nodiscard]] std::optional<Time> freeAt() const {
        return unchangedSince_ ? std::optional{*unchangedSince_ + span()} : std::nullopt;
    }

    /// What is left of a lease for the end of acting.
    [[nodiscard]] Duration span() const { return lease_ - lease_ / 10; }
    /// Between two questions: several may be lost.
    [[nodiscard]] Duration rhythm() const { return lease_ / 10; }
    [[nodiscard]] Duration lease() const { return lease_; }

private:
    const Duration lease_;
    std::optional<Time> until_;
    std::string seen_;
    std::optional<Time> unchangedSince_;
};

}  // namespace Store
