/// The two containers of record fields: `FlatMap` for plain values and `Collection` for records.
/// Both are ordered by key, so that nothing that depends on a walk depends on hashing; both offer `firstKey`
/// and `nextKey`, with which a walk survives changes that its own steps make.
#pragma once

#include "State/Entity.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace State {

/// A map as a sorted vector: small, and fast for the few entries that a field has.
template <class K, class V>
class FlatMap {
public:
    using Item = std::pair<K, V>;

    [[nodiscard]] const V* find(const K& key) const {
        const auto at = lower(key);
        return at != items_.end() && at->first == key ? &at->second : nullptr;
    }
    [[nodiscard]] V get(const K& key, V absent = V{}) const {
        const V* found = find(key);
        return found != nullptr ? *found : absent;
    }
    [[nodiscard]] bool contains(const K& key) const { return find(key) != nullptr; }

    /// True when the map is different now.
    bool set(const K& key, const V& value) {
        const auto at = lower(key);
        if (at == items_.end() || at->first != key) {
            items_.insert(at, Item{key, value});
            return true;
        }
        auto& held = items_[static_cast<std::size_t>(at - items_.cbegin())].second;
        if (held == value) return false;
        held = value;
        return true;
    }
    bool erase(const K& key) {
        const auto at = lower(key);
        if (at == items_.end() || at->first != key) return false;
        items_.erase(at);
        return true;
    }
    void clear() { items_.clear(); }

    bool operator==(const FlatMap&) const = default;
    [[nodiscard]] bool empty() const { return items_.empty(); }
    [[nodiscard]] std::size_t size() const { return items_.size(); }
    [[nodiscard]] auto begin() const { return items_.begin(); }
    [[nodiscard]] auto end() const { return items_.end(); }

    [[nodiscard]] std::optional<K> firstKey() const {
        return items_.empty() ? std::nullopt : std::optional<K>{items_.front().first};
    }
    /// The smallest key above `key`.
    [[nodiscard]] std::optional<K> nextKey(const K& key) const {
        auto at = lower(key);
        if (at != items_.end() && at->first == key) ++at;
        return at == items_.end() ? std::nullopt : std::optional<K>{at->first};
    }

private:
    [[nodiscard]] typename std::vector<Item>::const_iterator lower(const K& key) const {
        return std::lower_bound(items_.begin(), items_.end(), key,
                                [](const Item& item, const K& k) { return item.first < k; });
    }
    std::vector<Item> items_;
};

/// The records of a collection, whatever their class: compiled once for each type of key.
template <class K>
class Children {
public:
    Children() = default;
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;
    ~Children() {
        for (auto& [key, entity] : items_) Ownership::parentIs(*entity, nullptr);
    }

    [[nodiscard]] bool contains(const K& key) const { return items_.contains(key); }
    [[nodiscard]] bool empty() const { return items_.empty(); }
    [[nodiscard]] std::size_t size() const { return items_.size(); }
    [[nodiscard]] std::optional<K> firstKey() const {
        return items_.empty() ? std::nullopt : std::optional<K>{items_.begin()->first};
    }
    /// The smallest key that is not below `key`.
    [[nodiscard]] std::optional<K> from(const K& key) const {
        const auto at = items_.lower_bound(key);
        return at == items_.end() ? std::nullopt : std::optional<K>{at->first};
    }
    [[nodiscard]] std::optional<K> nextKey(const K& key) const {
        const auto at = items_.upper_bound(key);
        return at == items_.end() ? std::nullopt : std::optional<K>{at->first};
    }

protected:
    [[nodiscard]] const std::shared_ptr<Entity>* find(const K& key) const {
        const auto at = items_.find(key);
        return at == items_.end() ? nullptr : &at->second;
    }
    void put(const K& key, std::shared_ptr<Entity> entity, Entity* owner) {
        Ownership::parentIs(*entity, owner);
        std::shared_ptr<Entity>& held = items_[key];
        if (held && held != entity) Ownership::parentIs(*held, nullptr);
        held = std::move(entity);
    }
    std::shared_ptr<Entity> take(const K& key) {
        const auto at = items_.find(key);
        if (at == items_.end()) return nullptr;
        std::shared_ptr<Entity> entity = std::move(at->second);
        items_.erase(at);
        Ownership::parentIs(*entity, nullptr);
        return entity;
    }
    std::map<K, std::shared_ptr<Entity>> items_;
};

/// Records by key.  Constant access hands out pointers to constant records.
template <class K, class E>
class Collection : public Children<K> {
public:
    [[nodiscard]] std::shared_ptr<const E> get(const K& key) const {
        const auto* held = this->find(key);
        return held != nullptr ? std::static_pointer_cast<const E>(*held) : nullptr;
    }
    [[nodiscard]] std::shared_ptr<E> get(const K& key) {
        const auto* held = this->find(key);
        return held != nullptr ? std::static_pointer_cast<E>(*held) : nullptr;
    }
    /// The same without a share of it: not for longer than it surely stays in the collection.
    [[nodiscard]] E* peek(const K& key) {
        const auto* held = this->find(key);
        return held != nullptr ? static_cast<E*>(held->get()) : nullptr;
    }
    /// Takes `entity` in under `key`, in place of what was there.
    void put(const K& key, std::shared_ptr<E> entity, Entity* owner) {
        Children<K>::put(key, std::move(entity), owner);
    }
    /// The removed record, or null.
    std::shared_ptr<E> erase(const K& key) { return std::static_pointer_cast<E>(this->take(key)); }
    /// Calls `visit(key, record)` for all; `visit` must not add or remove entries.
    template <class F>
    void each(F&& visit) const {
        for (const auto& [key, entity] : this->items_) visit(key, static_cast<const E&>(*entity));
    }
};

}  // namespace State
