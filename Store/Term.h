/// How long an agent may act on what it knows of its lease.  Times are those of its own clock, which does not
/// stop and is not set; nothing here reads one.
#pragma once

#include "Runtime/Time.h"

#include <algorithm>
#include <optional>

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

    /// The store gives the role to whoever asks; not so while it reads its data, or is out of reach.
    void grants(Time now) {
        if (!grantsSince_) grantsSince_ = now;
    }
    void silent() { grantsSince_.reset(); }

    [[nodiscard]] bool acting(Time now) const { return until_ && now < *until_; }
    /// The end of it, as far as is known.
    [[nodiscard]] std::optional<Time> until() const { return until_; }
    /// Who did not act just now may take a free role only when every other has stopped who could not reach
    /// the store meanwhile, or has found it without its lease.
    [[nodiscard]] bool mayTake(Time now) const {
        return acting(now) || (grantsSince_ && now >= *grantsSince_ + lease_);
    }

    /// What is left of a lease for the end of acting.
    [[nodiscard]] Duration span() const { return lease_ - lease_ / 10; }
    /// Between two questions: several may be lost.
    [[nodiscard]] Duration rhythm() const { return lease_ / 5; }
    [[nodiscard]] Duration lease() const { return lease_; }

private:
    const Duration lease_;
    std::optional<Time> until_;
    std::optional<Time> grantsSince_;
};

}  // namespace Store
