/// "history/events": what has happened, each event under a number that no other ever has, with both clocks.
///
/// The record's fields say which numbers there are; the events are read by `Selection`, in pieces.  Room is
/// bounded and made fairly among the ports (History/FairShare.h), so that numbers may be missing anywhere:
/// who reads is told how many.  An event costs the same however many there are.
#pragma once

#include "History/FairShare.h"
#include "History/SlotFile.h"
#include "Runtime/Loop.h"
#include "State/Record.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace History {

/// Which events somebody wants.
struct Filter {
    std::uint64_t after = 0;    ///< numbers above this one
    Runtime::WallTime since{};  ///< not older
    std::optional<std::uint64_t> stream{};
    std::string port{};                 ///< empty: of all ports and of none
    std::optional<std::size_t> last{};  ///< the newest so many of those

    [[nodiscard]] bool passes(const Glance& event) const;
};

class Journal : public State::Record<Journal> {
public:
    static constexpr std::string_view type = "History::Journal";
    static constexpr std::size_t defaultOctets = std::size_t{8} << 20;

    /// Nothing is kept before `begin`.
    Journal() = default;

    /// `octets` is what all events take, and their file; at least some events are kept.  With a directory,
    /// those of earlier lives are there, and these will be (History/SlotFile.h).  To be called once; empty on
    /// success, else why they are kept in memory only.  The loop must outlive the journal.
    std::string begin(const Runtime::Loop& loop, std::size_t octets, const std::string& directory = {});
    /// At this moment, or at `when` on the daemon's clock, a little before.
    void add(Event event) { add(std::move(event), loop_ != nullptr ? loop_->now() : Runtime::Time{}); }
    void add(Event event, Runtime::Time when);

    /// The number of the next event.
    [[nodiscard]] std::uint64_t next() const { return next_; }
    /// The next one in the order of numbers that the filter passes, from above `after` on; `missing` is how
    /// many between the two are not kept any more.
    struct Found {
        Event event;
        std::uint64_t missing = 0;
    };
    [[nodiscard]] std::optional<Found> find(const Filter& filter, std::uint64_t after) const;
    /// The number behind which the filter's `last` ones begin.
    [[nodiscard]] std::uint64_t start(const Filter& filter) const;
    [[nodiscard]] std::optional<Event> newest(Kind kind) const;

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("next", &Journal::next_));
        each(State::derived<Journal>("first", [](const Journal& j) { return j.first(); }));
        each(State::derived<Journal>("kept",
                                     [](const Journal& j) { return std::uint64_t{j.shares_.size()}; }));
        each(State::derived<Journal>(
            "room", [](const Journal& j) { return std::uint64_t{j.slots_ ? j.slots_->size() : 0}; }));
        each(State::derived<Journal>(
            "file", [](const Journal& j) { return j.slots_ ? j.slots_->path() : std::string{}; }));
    }

private:
    /// An event's place; it is there as long as its slot has its number.
    struct Place {
        std::uint64_t sequence = 0;
        std::uint32_t slot = 0;
    };
    [[nodiscard]] bool there(const Place& place) const { return held_[place.slot] == place.sequence; }
    [[nodiscard]] std::uint64_t first() const;
    /// Gives it a slot, that of another where none is free.
    std::uint32_t take(const Event& event, std::uint64_t sequence);
    [[nodiscard]] std::span<const std::byte, slotOctets> at(const Place& place) const {
        return std::as_const(*slots_).slot(place.slot);
    }

    const Runtime::Loop* loop_ = nullptr;
    std::unique_ptr<SlotFile> slots_;
    bool lost_ = false;  ///< its file, which has been told
    std::uint64_t next_ = 1;
    std::vector<std::uint64_t> held_;  ///< the number in each slot, 0: none
    std::vector<std::uint32_t> free_;
    std::deque<Place> order_;  ///< by number; with some that are not there any more
    FairShare<Place> shares_{1};
};

/// What somebody reads of the journal, from then on, piece by piece.
class Selection : public State::Record<Selection> {
public:
    static constexpr std::string_view type = "History::Selection";
    Selection(std::shared_ptr<const Journal> journal, const Filter& filter)
        : journal_{std::move(journal)},
          filter_{filter},
          start_{journal_->start(filter)},
          next_{journal_->next()} {}

    template <class F>
    static constexpr void fields(F&& each) {
        // What comes while the rest is read may be read as well.
        each(State::scalar("next", &Selection::next_));
        each(State::derivedEntries<Selection>(
            "event",
            [](const Selection& s, const State::From& from, std::size_t most) {
                return s.events(from, most);
            },
            eventsSchema));
    }

private:
    [[nodiscard]] State::Object events(const State::From& from, std::size_t most) const;
    static State::Schema eventsSchema() {
        return State::mapOf(State::KeyText<std::uint64_t>::schema(), eventSchema());
    }

    const std::shared_ptr<const Journal> journal_;
    const Filter filter_;
    const std::uint64_t start_;
    std::uint64_t next_;
};

}  // namespace History

// Made once, in the source file beside this header.
extern template class State::Record<History::Journal>;
extern template class State::Record<History::Selection>;
