/// Who makes room when a store is full: whoever holds most of it loses its oldest item.
///
/// So one source that never rests, a flapping peer, pushes out what it said itself, and what the quiet ones
/// said stays, however long ago.  Nothing is folded or delayed for that.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <utility>

namespace History {

template <class Item>
class FairShare {
public:
    using Source = std::uint32_t;

    /// At least one item.
    explicit FairShare(std::size_t capacity) : capacity_{capacity} {}

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] bool full() const { return size_ == capacity_; }

    /// The one that makes room for another; there must be some.
    Item takeOut() { return drop(*bySize_.rbegin()); }
    /// Takes in the newest item of its source; it must not be full.
    void add(Source source, Item item) {
        std::deque<Item>& items = items_[source];
        sizeIs(source, items.size(), items.size() + 1);
        items.push_back(std::move(item));
        ++size_;
    }

    /// Takes one out that was added of that source; it takes as long as the source has items.
    void remove(Source source, const Item& item) {
        const auto held = items_.find(source);
        if (held == items_.end()) return;
        const auto at = std::find(held->second.begin(), held->second.end(), item);
        if (at == held->second.end()) return;
        held->second.erase(at);
        --size_;
        sizeIs(source, held->second.size() + 1, held->second.size());
        if (held->second.empty()) items_.erase(held);
    }

private:
    using Entry = std::pair<std::size_t, Source>;  ///< how many items it has

    Item drop(Entry greediest) {
        const auto held = items_.find(greediest.second);
        Item item = std::move(held->second.front());
        held->second.pop_front();
        --size_;
        sizeIs(greediest.second, greediest.first, greediest.first - 1);
        if (held->second.empty()) items_.erase(held);
        return item;
    }
    void sizeIs(Source source, std::size_t before, std::size_t now) {
        // The entry's own memory goes on being used.
        auto entry = bySize_.extract(Entry{before, source});
        if (entry && now != 0) {
            entry.value().first = now;
            bySize_.insert(std::move(entry));
        } else if (now != 0) {
            bySize_.emplace(now, source);
        }
    }

    std::size_t capacity_;
    std::size_t size_ = 0;
    std::map<Source, std::deque<Item>> items_;
    std::set<Entry> bySize_;
};

}  // namespace History
