#include "History/Journal.h"

#include <algorithm>
#include <utility>

namespace History {

namespace {

constexpr std::size_t fewest = 16;

/// Ports are sources of their own; what concerns none is one for each kind.
std::uint32_t sourceOf(const Event& event) {
    constexpr std::uint32_t portless = 1U << 31;
    return event.intf ? event.intf.number() : portless | static_cast<std::uint32_t>(event.kind);
}

}  // namespace

bool Filter::passes(const Glance& event) const {
    return (!stream || (event.ofStream && event.stream == *stream)) && (port.empty() || event.intf == port) &&
           event.wallTime >= since;
}

std::string Journal::begin(const Runtime::Loop& loop, std::size_t octets, const std::string& directory) {
    loop_ = &loop;
    const std::size_t room = std::max(octets / slotOctets, fewest + 1) - 1;
    slots_ = std::make_unique<SlotFile>(room);
    std::string problem = directory.empty() ? std::string{} : slots_->open(directory);
    next_ = slots_->next();
    held_.assign(room, 0);
    shares_ = FairShare<Place>{room};
    std::vector<std::pair<Place, std::uint32_t>> old;
    Event event;
    for (std::size_t i = room; i-- > 0;) {
        const auto slot = static_cast<std::uint32_t>(i);
        if (decode(std::as_const(*slots_).slot(i), event)) {
            old.push_back({{event.sequence, slot}, sourceOf(event)});
        } else {
            free_.push_back(slot);
        }
    }
    std::ranges::sort(old, {}, [](const auto& one) { return one.first.sequence; });
    for (const auto& [place, source] : old) {
        // Two of one number: one was copied there by somebody.
        if (!order_.empty() && order_.back().sequence == place.sequence) {
            free_.push_back(place.slot);
            continue;
        }
        held_[place.slot] = place.sequence;
        order_.push_back(place);
        shares_.add(source, place);
    }
    return problem;
}

void Journal::add(Event event, Runtime::Time when) {
    if (!slots_) return;
    event.time = when;
    event.wallTime = loop_->wallNow() - (loop_->now() - when);
    event.sequence = next_;
    // Told by the header first: the number is used up, whatever happens now.
    slots_->nextIs(next_ + 1);
    const std::uint32_t slot = take(event, next_);
    slots_->slotIs(slot, event);
    held_[slot] = next_;
    order_.push_back({next_, slot});
    while (!there(order_.front())) order_.pop_front();
    if (order_.size() > 2 * held_.size())
        std::erase_if(order_, [this](const Place& place) { return !there(place); });
    assign(next_, next_ + 1, "next");
    if (lost_ || slots_->problem().empty()) return;
    lost_ = true;
    Event told;
    told.kind = Kind::daemon;
    told.text = slots_->problem();
    add(std::move(told));
}

std::uint32_t Journal::take(const Event& event, std::uint64_t sequence) {
    if (free_.empty()) free_.push_back(shares_.takeOut().slot);
    const std::uint32_t slot = free_.back();
    free_.pop_back();
    shares_.add(sourceOf(event), {sequence, slot});
    return slot;
}

std::uint64_t Journal::first() const { return order_.empty() ? next_ : order_.front().sequence; }

std::optional<Journal::Found> Journal::find(const Filter& filter, std::uint64_t after) const {
    Found found;
    std::uint64_t last = after;
    auto place = std::ranges::upper_bound(order_, after, {}, &Place::sequence);
    for (; place != order_.end(); ++place) {
        if (!there(*place)) continue;
        // Numbers that nobody ever had are not missing.
        found.missing += (place->sequence - last - 1) % SlotFile::leap;
        last = place->sequence;
        if (filter.passes(glance(at(*place))) && decode(at(*place), found.event)) return found;
    }
    return std::nullopt;
}

std::uint64_t Journal::start(const Filter& filter) const {
    if (!filter.last) return filter.after;
    std::size_t wanted = *filter.last;
    std::uint64_t start = next_ - 1;
    for (auto place = order_.rbegin(); place != order_.rend() && wanted > 0; ++place) {
        if (place->sequence <= filter.after) break;
        if (!there(*place) || !filter.passes(glance(at(*place)))) continue;
        start = place->sequence - 1;
        --wanted;
    }
    // All that there are: what is missing before them is to be told, too.
    return wanted > 0 ? filter.after : start;
}

std::optional<Event> Journal::newest(Kind kind) const {
    Event event;
    const auto found = std::find_if(order_.rbegin(), order_.rend(), [&](const auto& place) {
        return there(place) && glance(at(place)).kind == kind && decode(at(place), event);
    });
    return found != order_.rend() ? std::optional{event} : std::nullopt;
}

State::Object Selection::events(const State::From& from, std::size_t most) const {
    State::Object events;
    std::uint64_t after = start_;
    if (from.key)
        after = State::parseDecimal(*from.key, ~std::uint64_t{0}).value_or(0) - (from.included ? 1 : 0);
    while (events.size() < most) {
        const auto found = journal_->find(filter_, after);
        if (!found) break;
        after = found->event.sequence;
        events.emplace_back(std::to_string(after), valueOf(found->event, found->missing));
    }
    return events;
}

}  // namespace History

template class State::Record<History::Journal>;
template class State::Record<History::Selection>;
