/// Values by key, in the order of their keys: a map for walks.
///
/// A walk through a balanced tree goes from node to node, and with keys that came in no order each step waits
/// for memory that lies anywhere.  Here keys and addresses of values lie side by side in sorted chunks, and
/// the chunks in a sorted directory: a walk knows the addresses to come, and the processor fetches several at
/// a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

namespace Mrp {

/// A value keeps its address until it is erased; iterators last until anything is inserted or erased.
template <class Value>
class OrderedChunks {
    struct Entry {
        std::uint64_t key;
        Value* value;  ///< owned; a plain address, since many entries are moved for each new one
    };
    /// Never empty, never more than `capacity`.
    using Chunk = std::vector<Entry>;
    struct Place {
        std::size_t chunk = 0;
        std::size_t entry = 0;
        bool operator==(const Place&) const = default;
    };

    template <class Owner, class V>
    class Iterator {
    public:
        struct Item {
            std::uint64_t key;
            V& value;
        };
        Iterator(Owner& owner, Place place) : owner_{&owner}, place_{place} {}
        Item operator*() const {
            const Entry& entry = owner_->at(place_);
            return {entry.key, *entry.value};
        }
        Iterator& operator++() {
            place_ = owner_->after(place_);
            return *this;
        }
        bool operator==(const Iterator&) const = default;

    private:
        Owner* owner_;
        Place place_;
    };

public:
    OrderedChunks() = default;
    OrderedChunks(const OrderedChunks&) = delete;
    OrderedChunks& operator=(const OrderedChunks&) = delete;
    ~OrderedChunks() {
        for (const auto [key, value] : *this) delete &value;
    }

    using iterator = Iterator<OrderedChunks, Value>;
    using const_iterator = Iterator<const OrderedChunks, const Value>;

    /// Entries of a full chunk: few enough that one is quickly inserted, many enough that the directory is
    /// short.
    static constexpr std::size_t capacity = 64;

    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] iterator begin() { return {*this, Place{}}; }
    [[nodiscard]] iterator end() { return {*this, endPlace()}; }
    [[nodiscard]] const_iterator begin() const { return {*this, Place{}}; }
    [[nodiscard]] const_iterator end() const { return {*this, endPlace()}; }
    /// The first one whose key is not less.
    [[nodiscard]] iterator lowerBound(std::uint64_t key) {
        seek(key);
        return {*this, settled(finger_)};
    }
    [[nodiscard]] const_iterator lowerBound(std::uint64_t key) const {
        seek(key);
        return {*this, settled(finger_)};
    }

    /// Null when there is none of that key.
    [[nodiscard]] Value* find(std::uint64_t key) { return seek(key) ? at(finger_).value : nullptr; }
    [[nodiscard]] const Value* find(std::uint64_t key) const {
        return seek(key) ? at(finger_).value : nullptr;
    }

    /// The value of that key, and true when it was made.
    std::pair<Value&, bool> tryEmplace(std::uint64_t key) {
        if (seek(key)) return {*at(finger_).value, false};
        finger_ = makeRoom(finger_, key);
        Chunk& chunk = chunks_[finger_.chunk];
        lowest_[finger_.chunk] = std::min(lowest_[finger_.chunk], key);
        const auto before = chunk.begin() + static_cast<std::ptrdiff_t>(finger_.entry);
        Value& made = *chunk.insert(before, Entry{key, new Value})->value;
        ++size_;
        return {made, true};
    }

    /// Nothing when there is none of that key.
    void erase(std::uint64_t key) {
        if (!seek(key)) return;
        Chunk& entries = chunks_[finger_.chunk];
        delete at(finger_).value;
        entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(finger_.entry));
        --size_;
        if (entries.empty()) {
            dropChunk(finger_.chunk);
        } else {
            mergeWithNext(finger_.chunk);
            if (finger_.chunk > 0) mergeWithNext(finger_.chunk - 1);
        }
    }

private:
    void insertChunk(std::size_t index, std::uint64_t lowest, Chunk chunk) {
        lowest_.insert(lowest_.begin() + static_cast<std::ptrdiff_t>(index), lowest);
        chunks_.insert(chunks_.begin() + static_cast<std::ptrdiff_t>(index), std::move(chunk));
    }
    void dropChunk(std::size_t index) {
        lowest_.erase(lowest_.begin() + static_cast<std::ptrdiff_t>(index));
        chunks_.erase(chunks_.begin() + static_cast<std::ptrdiff_t>(index));
    }
    [[nodiscard]] const Entry& at(Place place) const { return chunks_[place.chunk][place.entry]; }
    [[nodiscard]] Place endPlace() const { return {chunks_.size(), 0}; }
    /// The same place; the end of a chunk is the beginning of the next one.
    [[nodiscard]] Place settled(Place place) const {
        const bool past = place.chunk < chunks_.size() && place.entry >= chunks_[place.chunk].size();
        return past ? Place{place.chunk + 1, 0} : place;
    }
    [[nodiscard]] Place after(Place place) const {
        constexpr std::size_t ahead = 8;  // so far in advance that memory has answered
        if (place.chunk < chunks_.size() && place.entry + ahead < chunks_[place.chunk].size()) {
            __builtin_prefetch(at({place.chunk, place.entry + ahead}).value);
        }
        return settled({place.chunk, place.entry + 1});
    }
    [[nodiscard]] bool holds(Place place, std::uint64_t key) const {
        return place.chunk < chunks_.size() && place.entry < chunks_[place.chunk].size() &&
               at(place).key == key;
    }

    /// Where the key is or belongs, which may be the end of a chunk.
    [[nodiscard]] Place search(std::uint64_t key) const {
        const auto next = std::ranges::upper_bound(lowest_, key);
        if (next == lowest_.begin()) return {};
        const auto chunk = static_cast<std::size_t>(next - lowest_.begin()) - 1;
        const Chunk& entries = chunks_[chunk];
        // One after the other, which memory serves faster than jumps; from behind, where most new keys
        // belong.
        std::size_t entry = entries.size();
        while (entry > 0 && entries[entry - 1].key >= key) --entry;
        return {chunk, entry};
    }
    /// Lets the finger point to where the key is or belongs; false when it is not there.
    bool seek(std::uint64_t key) const {
        if (holds(finger_, key)) return true;
        const Place next = after(finger_);
        finger_ = holds(next, key) ? next : search(key);
        return holds(finger_, key);
    }

    /// Where the key is to be inserted, that its chunk may take one more.
    Place makeRoom(Place place, std::uint64_t key) {
        if (chunks_.empty()) insertChunk(0, key, {});
        Chunk& full = chunks_[place.chunk];
        if (full.size() < capacity) return place;
        // Keys that come in order leave full chunks behind, others half full ones.
        const bool behindAll = place.entry == capacity && place.chunk + 1 == chunks_.size();
        const std::size_t kept = behindAll ? capacity : capacity / 2;
        const auto split = full.begin() + static_cast<std::ptrdiff_t>(kept);
        Chunk upper{split, full.end()};
        full.erase(split, full.end());
        const std::uint64_t lowest = upper.empty() ? key : upper.front().key;
        insertChunk(place.chunk + 1, lowest, std::move(upper));
        return place.entry < kept ? place : Place{place.chunk + 1, place.entry - kept};
    }

    /// Neighbours that have become small, so that few entries never lie in many chunks.
    void mergeWithNext(std::size_t index) {
        if (index + 1 >= chunks_.size()) return;
        Chunk& into = chunks_[index];
        const Chunk& from = chunks_[index + 1];
        if (into.size() + from.size() > capacity / 2) return;
        into.insert(into.end(), from.begin(), from.end());
        dropChunk(index + 1);
    }

    /// No key of the chunk at that position is lower, and those of the chunks before it are: a directory
    /// apart, since a search reads it at many places.
    std::vector<std::uint64_t> lowest_;
    std::vector<Chunk> chunks_;
    std::size_t size_ = 0;
    /// Where something was last sought: mostly it or its neighbour is sought next.  May lie outside after an
    /// erasure.
    mutable Place finger_;
};

}  // namespace Mrp
