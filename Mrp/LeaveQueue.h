/// The leave timers of one port.  All run for the same time, so the first one started ends first: a queue
/// with one timer at its head.  A stopped one stays in the queue until it comes to the head or until too many
/// have gathered.
#pragma once

#include "Runtime/Time.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace Mrp {

class LeaveQueue {
public:
    struct Entry {
        Runtime::Time due;
        std::uint64_t key;
        std::uint32_t sequence;
        std::uint8_t typeIndex;
    };

    void push(const Entry& entry) { entries_.push_back(entry); }
    void pop() { entries_.pop_front(); }
    [[nodiscard]] bool empty() const { return entries_.empty(); }
    [[nodiscard]] const Entry& front() const { return entries_.front(); }
    /// All timers, stopped ones included.
    template <class F>
    void each(F&& visit) const {
        for (const Entry& entry : entries_) visit(entry);
    }

    /// Tells that one entry was stopped.  When half of the queue may be stopped ones, those for which
    /// `running` is false are dropped, so that a peer that leaves and joins without end does not make the
    /// queue grow.
    template <class F>
    void stopped(F&& running) {
        constexpr std::size_t worthwhile = 64;
        if (++stopped_ < worthwhile + entries_.size() / 2) return;
        std::erase_if(entries_, [&](const Entry& entry) { return !running(entry); });
        stopped_ = 0;
    }

    /// Moves all ends by `change`, but not before `now`.
    void shift(Runtime::Duration change, Runtime::Time now) {
        for (Entry& entry : entries_) entry.due = std::max(entry.due + change, now);
    }

private:
    std::deque<Entry> entries_;
    std::size_t stopped_ = 0;
};

}  // namespace Mrp
