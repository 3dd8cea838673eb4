/// How a record is written down: a class derives from `Record<itself>`, holds its fields as plain members,
/// `FlatMap`s and `Collection`s, and lists them once in a static function `fields`.  Reading, checking and
/// writing by name all come from that one list.
///
///     class Config : public State::Record<Config> {
///     public:
///         static constexpr std::string_view type = "Msrp::Config";
///         std::uint16_t limit() const { return limit_; }
///         void limitIs(std::uint16_t v) { assign(limit_, v, "limit"); }
///         template <class F> static constexpr void fields(F&& each) { each(State::scalar("limit",
///         &Config::limit_)); }
///     private:
///         std::uint16_t limit_ = 0;
///     };
#pragma once

#include "State/Codec.h"
#include "State/Entity.h"
#include "State/Maps.h"

#include <algorithm>
#include <concepts>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace State {

inline Problem badValue(const Value& value, const std::string& expected) {
    return {"", text(value) + " is not " + expected};
}
inline Problem badKey(std::string_view key, const std::string& expected) {
    return {"", '"' + std::string{key} + "\" is not " + expected};
}
/// "a/b/c" to "a" and "b/c".
inline std::pair<std::string_view, std::string_view> splitPath(std::string_view path) {
    const std::size_t slash = path.find('/');
    if (slash == std::string_view::npos) return {path, {}};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

/// Access to `Entity`'s notification for the field descriptions below.
struct Notify {
    template <class R>
    static void changed(R& record, std::string_view field, Tidings& later) {
        later.add([&record, field] { record.changed(Change{record, field}); });
    }
    /// `held`: what else must live until then.
    template <class R, class K>
    static void changed(R& record, std::string_view field, const K& key, Tidings& later,
                        std::shared_ptr<const Entity> held = {}) {
        later.add([&record, field, key, held = std::move(held)] {
            record.changed(Change{record, field, key});
        });
    }
};

/// What makes a map that holds `held` what `value` says: entries that are not named go.
template <class Map>
Value wholePatch(const Value& value, const Map& held) {
    Value patch{value};
    for (const auto& [key, entry] : held) {
        std::string text = KeyText<std::remove_cvref_t<decltype(key)>>::text(key);
        if (value.member(text) == nullptr)
            std::get<Object>(patch.data).emplace_back().first = std::move(text);
    }
    return patch;
}

/// A field that is read whole; see `Entity::nextPiece`.
struct WholeField {
    static constexpr bool isLong = false;
    static constexpr bool follows = false;
    static constexpr FieldKind kind = FieldKind::whole;
    /// Of a field without entries.
    static std::optional<std::string> keyText(const Change&) { return std::nullopt; }
    template <class R>
    static MaybeProblem restoreEntry(R&, std::string_view, const Value&, double) {
        return Problem{"", "has no entries"};
    }
    template <class R>
    static MaybeProblem restore(R&, const Value&, double) {
        return Problem{"", "is not taken over from another life"};
    }
    template <class Field, class R>
    static Piece next(const Field& field, const R& record, Place& place) {
        ++place.field;
        return {.kind = Piece::Kind::value, .name = std::string{field.name}, .value = field.read(record)};
    }
    template <class R>
    static std::shared_ptr<const Entity> child(const R&, std::string_view) {
        return nullptr;
    }
};

/// A field that is read entry by entry.
struct LongField {
    static constexpr bool isLong = true;
    static constexpr bool follows = false;
    /// The opening when it has not been told yet.
    static bool opens(std::string_view name, Place& place, Piece& piece) {
        if (std::exchange(place.entered, true)) return false;
        piece = {.kind = Piece::Kind::entries, .name = std::string{name}};
        return true;
    }
    static Piece closed(Place& place) {
        place = {.field = place.field + 1};
        return {};
    }
};

template <class R, class T>
struct Scalar : WholeField {
    constexpr Scalar(std::string_view n, T R::*m, T least = T{}, T most = T{})
        : name{n}, member{m}, min{least}, max{most} {}
    std::string_view name;
    T R::*member;
    T min;  ///< with `max`, the range that may be written; not used where both are equal
    T max;
    bool isTime = false;  ///< seconds on the agent's clock

    [[nodiscard]] std::string_view type() const { return Codec<T>::typeName; }
    [[nodiscard]] Value read(const R& record) const { return Codec<T>::encode(record.*member); }
    [[nodiscard]] std::optional<Value> entry(const R& record, std::string_view rest) const {
        return rest.empty() ? std::optional<Value>{read(record)} : std::nullopt;
    }
    [[nodiscard]] MaybeProblem check(const R&, const Value& value) const {
        const auto decoded = Codec<T>::decode(value);
        if (!decoded) return badValue(value, Codec<T>::expected());
        if constexpr (std::integral<T> || std::floating_point<T>) {
            if (min != max && (*decoded < min || *decoded > max)) {
                return badValue(value,
                                "from " + text(Codec<T>::encode(min)) + " to " + text(Codec<T>::encode(max)));
            }
        }
        return std::nullopt;
    }
    void write(R& record, const Value& value, Tidings& later) const {
        T decoded = *Codec<T>::decode(value);
        if (record.*member == decoded) return;
        record.*member = std::move(decoded);
        Notify::changed(record, name, later);
    }
    MaybeProblem restore(R& record, const Value& value, double shift) const {
        Tidings now;
        if constexpr (NamedEnum<T>) {
            const auto told = Codec<T>::decodeWithZero(value);
            if (!told) return badValue(value, Codec<T>::expected());
            if (std::exchange(record.*member, *told) != *told) Notify::changed(record, name, now);
        } else {
            if (auto problem = check(record, value)) return problem;
            if constexpr (std::same_as<T, double>) {
                write(record, Value{*Codec<T>::decode(value) + (isTime ? shift : 0.0)}, now);
            } else {
                write(record, value, now);
            }
        }
        now.tell();
        return std::nullopt;
    }
    [[nodiscard]] Schema schema(const R& record) const {
        Schema schema = Codec<T>::schema();
        if (min != max) {
            schema.least = Codec<T>::encode(min);
            schema.most = Codec<T>::encode(max);
        }
        schema.standard = read(record);
        // An enumeration begins as something without a name where nothing is known yet.
        if (const auto* begin = std::get_if<std::string>(&schema.standard.data);
            begin != nullptr && !schema.names.empty() &&
            std::find(schema.names.begin(), schema.names.end(), *begin) == schema.names.end())
            schema.names.push_back(*begin);
        return schema;
    }
};

template <class R, class K, class V>
struct MapField : WholeField {
    constexpr MapField(std::string_view n, FlatMap<K, V> R::*m) : name{n}, member{m} {}
    std::string_view name;
    FlatMap<K, V> R::*member;

    [[nodiscard]] static std::string_view type() { return "map"; }
    [[nodiscard]] Value read(const R& record) const {
        Object entries;
        for (const auto& [key, value] : record.*member) {
            entries.emplace_back(KeyText<K>::text(key), Codec<V>::encode(value));
        }
        return Value{std::move(entries)};
    }
    [[nodiscard]] std::optional<Value> entry(const R& record, std::string_view rest) const {
        if (rest.empty()) return read(record);
        const auto key = KeyText<K>::parse(rest);
        const V* found = key ? (record.*member).find(*key) : nullptr;
        return found != nullptr ? std::optional<Value>{Codec<V>::encode(*found)} : std::nullopt;
    }
    [[nodiscard]] MaybeProblem check(const R&, const Value& patch) const {
        if (patch.object() == nullptr) return badValue(patch, "an object");
        for (const auto& [keyText, value] : *patch.object()) {
            if (!KeyText<K>::parse(keyText)) return badKey(keyText, KeyText<K>::expected());
            if (!value.isNull() && !Codec<V>::decode(value)) {
                return badValue(value, Codec<V>::expected()).below(keyText);
            }
        }
        return std::nullopt;
    }
    void write(R& record, const Value& patch, Tidings& later) const {
        for (const auto& [keyText, value] : *patch.object()) {
            const K key = *KeyText<K>::parse(keyText);
            auto& map = record.*member;
            const bool differs = value.isNull() ? map.erase(key) : map.set(key, *Codec<V>::decode(value));
            if (differs) Notify::changed(record, name, key, later);
        }
    }
    MaybeProblem restore(R& record, const Value& value, double) const {
        if (auto problem = check(record, value)) return problem;
        const Value patch = wholePatch(value, record.*member);
        Tidings now;
        write(record, patch, now);
        now.tell();
        return std::nullopt;
    }
    [[nodiscard]] Schema schema(const R&) const {
        return {.type = "object", .keyAndEntry = {KeyText<K>::schema(), Codec<V>::schema()}};
    }
};

template <class R, class K, class E, class Text>
struct CollectionField : LongField {
    constexpr CollectionField(std::string_view n, Collection<K, E> R::*m) : name{n}, member{m} {}
    std::string_view name;
    Collection<K, E> R::*member;
    static constexpr FieldKind kind = FieldKind::records;

    [[nodiscard]] static std::string_view type() { return "collection"; }
    static std::optional<std::string> keyText(const Change& change) {
        const K* key = change.key<K>();
        return key != nullptr ? std::optional{Text::text(*key)} : std::nullopt;
    }
    MaybeProblem restore(R&, const Value&, double) const { return Problem{"", "is told apart by keys"}; }
    static MaybeProblem restoreEntry(R&, std::string_view, const Value&, double) {
        return Problem{"", "has records, no entries"};
    }
    [[nodiscard]] std::shared_ptr<Entity> child(R& record, std::string_view keyText) const {
        const auto key = Text::parse(keyText);
        return key ? (record.*member).get(*key) : nullptr;
    }
    [[nodiscard]] Value read(const R& record) const {
        Object entries;
        (record.*member).each([&](const K& key, const E& child) {
            entries.emplace_back(Text::text(key), child.value());
        });
        return Value{std::move(entries)};
    }
    [[nodiscard]] std::optional<Value> entry(const R& record, std::string_view rest) const {
        if (rest.empty()) return read(record);
        const auto [keyText, below] = splitPath(rest);
        const auto held = child(record, keyText);
        if (!held) return std::nullopt;
        if (below.empty()) return held->value();
        const auto [field, deeper] = splitPath(below);
        return held->fieldValue(field, deeper);
    }
    [[nodiscard]] std::shared_ptr<const Entity> child(const R& record, std::string_view keyText) const {
        const auto key = Text::parse(keyText);
        return key ? (record.*member).get(*key) : nullptr;
    }
    [[nodiscard]] Piece next(const CollectionField&, const R& record, Place& place) const {
        Piece piece;
        if (opens(name, place, piece)) return piece;
        const Collection<K, E>& held = record.*member;
        const auto before = place.key ? Text::parse(*place.key) : std::nullopt;
        const auto key = before ? held.nextKey(*before) : held.firstKey();
        if (!key || (place.key && !before)) return closed(place);
        place.key = Text::text(*key);
        const std::shared_ptr<const E> entity = held.get(*key);
        if (entity->hasLongField())
            return {.kind = Piece::Kind::record, .name = *place.key, .record = entity};
        return {.kind = Piece::Kind::value, .name = *place.key, .value = entity->value()};
    }
    [[nodiscard]] MaybeProblem check(const R& record, const Value& patch) const {
        if (patch.object() == nullptr) return badValue(patch, "an object");
        for (const auto& [keyText, value] : *patch.object()) {
            const auto key = Text::parse(keyText);
            if (!key) return badKey(keyText, Text::expected());
            if (value.isNull()) continue;
            const std::shared_ptr<const E> held = (record.*member).get(*key);
            const auto problem = held ? held->check(value) : E{*key}.check(value);
            if (problem) return problem->below(keyText);
        }
        return std::nullopt;
    }
    void write(R& record, const Value& patch, Tidings& later) const {
        for (const auto& [keyText, value] : *patch.object()) {
            const K key = *Text::parse(keyText);
            auto& held = record.*member;
            if (value.isNull()) {
                if (auto removed = held.erase(key))
                    Notify::changed(record, name, key, later, std::move(removed));
            } else if (const auto child = held.get(key)) {
                Ownership::write(*child, value, later);
                later.add([child] {});  // who is told first may remove it
            } else {
                // A newcomer is told whole, not field by field.
                auto fresh = std::make_shared<E>(key);
                Tidings unheard;
                Ownership::write(*fresh, value, unheard);
                held.put(key, std::move(fresh), &record);
                Notify::changed(record, name, key, later);
            }
        }
    }
    [[nodiscard]] Schema schema(const R&) const {
        return {.type = "object", .keyAndEntry = {Text::schema(), schemaOf(E{K{}})}};
    }
};

/// What is computed from other fields needs no restoring.
struct StaysAsItIs {};

/// A field that is computed from the record and can only be read.
template <class R, class Read, class Restore = StaysAsItIs>
struct Derived : WholeField {
    constexpr Derived(std::string_view n, Read r, Schema (*d)(), Restore w = {})
        : name{n}, readIt{std::move(r)}, described{d}, restoreIt{std::move(w)} {}
    std::string_view name;
    Read readIt;
    Schema (*described)();  ///< null: by its type
    Restore restoreIt;
    bool follows = true;

    [[nodiscard]] static std::string_view type() { return "derived"; }
    [[nodiscard]] Value read(const R& record) const {
        if constexpr (std::is_same_v<Computed, Value>) {
            return readIt(record);
        } else {
            return Codec<Computed>::encode(readIt(record));
        }
    }
    [[nodiscard]] Schema schema(const R&) const {
        Schema schema;
        if constexpr (!std::is_same_v<Computed, Value>) schema = Codec<Computed>::schema();
        if (described != nullptr) schema = described();
        schema.computed = true;
        return schema;
    }
    [[nodiscard]] std::optional<Value> entry(const R& record, std::string_view rest) const {
        const Value all = read(record);
        if (rest.empty()) return all;
        const Value* one = all.member(rest);
        return one != nullptr ? std::optional<Value>{*one} : std::nullopt;
    }
    [[nodiscard]] MaybeProblem check(const R&, const Value&) const {
        return Problem{"", "cannot be written"};
    }
    void write(R&, const Value&, Tidings&) const {}
    MaybeProblem restore(R& record, const Value& value, double shift) const {
        if constexpr (std::same_as<Restore, StaysAsItIs>) {
            return std::nullopt;
        } else {
            return restoreIt(record, value, shift);
        }
    }

private:
    using Computed = std::decay_t<std::invoke_result_t<const Read&, const R&>>;
};

/// Where a computed field's entries are to be read from.
struct From {
    std::optional<std::string> key;  ///< none: from the first one on
    bool included = false;           ///< the entry of that key is one of them
};

/// A computed field with many entries, read some at a time.
template <class R, class Read, class Restored = StaysAsItIs>
struct DerivedEntries : LongField {
    constexpr DerivedEntries(std::string_view n, Read r, Schema (*d)())
        : name{n}, readSome{std::move(r)}, described{d} {}
    static constexpr FieldKind kind = FieldKind::entries;
    /// Entries read at a time: few enough to take well below a millisecond.
    static constexpr std::size_t some = 64;
    std::string_view name;
    Read readSome;
    Schema (*described)();

    [[nodiscard]] static std::string_view type() { return "derived"; }
    [[nodiscard]] Schema schema(const R&) const {
        Schema schema = described != nullptr ? described() : Schema{};
        schema.computed = true;
        return schema;
    }
    [[nodiscard]] Value read(const R& record) const {
        return Value{readSome(record, From{}, std::numeric_limits<std::size_t>::max())};
    }
    [[nodiscard]] std::optional<Value> entry(const R& record, std::string_view rest) const {
        if (rest.empty()) return read(record);
        Object found = readSome(record, From{std::string{rest}, true}, 1);
        if (found.empty() || found.front().first != rest) return std::nullopt;
        return std::move(found.front().second);
    }
    [[nodiscard]] static std::shared_ptr<const Entity> child(const R&, std::string_view) { return nullptr; }
    [[nodiscard]] Piece next(const DerivedEntries&, const R& record, Place& place) const {
        Piece piece;
        if (opens(name, place, piece)) return piece;
        Object found = readSome(record, From{place.key, false}, some);
        if (found.empty()) return closed(place);
        place.key = found.back().first;
        return {.kind = Piece::Kind::values, .value = Value{std::move(found)}};
    }
    [[nodiscard]] MaybeProblem check(const R&, const Value&) const {
        return Problem{"", "cannot be written"};
    }
    void write(R&, const Value&, Tidings&) const {}
    static std::optional<std::string> keyText(const Change& change) {
        if constexpr (std::same_as<Restored, StaysAsItIs>) {
            return std::nullopt;
        } else {
            return Restored::keyText(change);
        }
    }
    MaybeProblem restore(R&, const Value&, double) const { return Problem{"", "is told apart by keys"}; }
    static MaybeProblem restoreEntry([[maybe_unused]] R& record, [[maybe_unused]] std::string_view key,
                                     [[maybe_unused]] const Value& value, [[maybe_unused]] double shift) {
        if constexpr (std::same_as<Restored, StaysAsItIs>) {
            return std::nullopt;
        } else {
            return Restored::restore(record, key, value, shift);
        }
    }
};

template <class R, class T>
constexpr Scalar<R, T> scalar(std::string_view name, T R::*member) {
    return {name, member};
}
template <class R, class T>
constexpr Scalar<R, T> scalar(std::string_view name, T R::*member, T min, T max) {
    return {name, member, min, max};
}
template <class R, class K, class V>
constexpr MapField<R, K, V> map(std::string_view name, FlatMap<K, V> R::*member) {
    return {name, member};
}
template <class Text = void, class R, class K, class E>
constexpr auto collection(std::string_view name, Collection<K, E> R::*member) {
    using KeyForm = std::conditional_t<std::is_void_v<Text>, KeyText<K>, Text>;
    return CollectionField<R, K, E, KeyForm>{name, member};
}
/// Seconds on the agent's clock.
template <class R>
constexpr Scalar<R, double> time(std::string_view name, double R::*member) {
    Scalar<R, double> field{name, member};
    field.isTime = true;
    return field;
}
/// `read` gives something that has a codec, or a value that `described` describes.
template <class R, class Read>
constexpr Derived<R, Read> derived(std::string_view name, Read read, Schema (*described)() = nullptr) {
    return {name, read, described};
}
/// A field of a form of its own: what `read` gives, `restore` takes from another life, with the record and
/// the seconds by which times are to be moved.  Its changes are told by its name, unless it `follows` others.
template <class R, class Read, class Restore>
constexpr Derived<R, Read, Restore> restored(std::string_view name, Read read, Restore restore,
                                             Schema (*described)() = nullptr, bool follows = false) {
    Derived<R, Read, Restore> field{name, read, described, restore};
    field.follows = follows;
    return field;
}
/// `read` takes the record, where to begin (`From`) and how many at most, and gives entries in their order.
/// `Restored`, if there is one, has `keyText(change)` and `restore(record, key, value, shift)`.
template <class R, class Restored = StaysAsItIs, class Read>
constexpr DerivedEntries<R, Read, Restored> derivedEntries(std::string_view name, Read read,
                                                           Schema (*described)() = nullptr) {
    return {name, read, described};
}

/// The name of a field of R for those who react to its changes.  It is looked up when this is compiled, so
/// that nobody goes on waiting for a field that has another name by now.
template <class R>
consteval std::string_view fieldName(std::string_view name) {
    bool found = false;
    R::fields([&](const auto& field) { found = found || field.name == name; });
    if (!found) throw std::logic_error{"no such field"};
    return name;
}

/// Whether a table of reactions, rows with a member `field`, names every field of R once and nothing else.
template <class R, class Table>
consteval bool coversFields(const Table& table) {
    std::size_t fields = 0;
    bool once = true;
    R::fields([&](const auto& field) {
        std::size_t rows = 0;
        for (const auto& row : table) rows += row.field == field.name ? 1 : 0;
        once = once && rows == 1;
        ++fields;
    });
    return once && fields == std::size(table);
}

/// What stands below is not `inline`: a record is compiled once, where its room says `template class
/// State::Record<...>`, and every other source file is spared it.
template <class R>
class Record : public Entity {
public:
    [[nodiscard]] std::string_view typeName() const override;
    void visit(FieldVisitor& visitor) const override;
    [[nodiscard]] std::optional<Value> fieldValue(std::string_view name,
                                                  std::string_view rest) const override;
    [[nodiscard]] Piece nextPiece(Place& place) const override;
    [[nodiscard]] std::optional<std::size_t> longField(std::string_view name) const override;
    [[nodiscard]] bool hasLongField() const override;
    [[nodiscard]] bool hasField(std::string_view name) const override;
    [[nodiscard]] std::shared_ptr<const Entity> child(std::string_view name,
                                                      std::string_view key) const override;
    [[nodiscard]] std::shared_ptr<Entity> child(std::string_view name, std::string_view key) override;
    [[nodiscard]] std::optional<FieldShape> fieldShape(std::string_view name) const override;
    void visit(FieldVisitor& visitor, std::uint64_t fields) const override;
    [[nodiscard]] std::optional<std::string> keyText(const Change& change) const override;
    [[nodiscard]] MaybeProblem restore(std::string_view name, const Value& value, double shift) override;
    [[nodiscard]] MaybeProblem restoreEntry(std::string_view name, std::string_view key, const Value& value,
                                            double shift) override;
    [[nodiscard]] MaybeProblem check(const Value& patch) const override;

protected:
    template <class K, class V>
    void setEntry(FlatMap<K, V>& map, const K& key, const V& value, std::string_view name) {
        if (map.set(key, value)) changed(Change{*this, name, key});
    }
    template <class K, class V>
    void delEntry(FlatMap<K, V>& map, const K& key, std::string_view name) {
        if (map.erase(key)) changed(Change{*this, name, key});
    }
    template <class K, class V>
    void delEntries(FlatMap<K, V>& map, std::string_view name) {
        while (auto key = map.firstKey()) delEntry(map, *key, name);
    }
    /// The record under `key`, made when there is none.
    template <class K, class E>
    std::shared_ptr<E> makeChild(Collection<K, E>& children, const K& key, std::string_view name) {
        if (auto held = children.get(key)) return held;
        auto child = std::make_shared<E>(key);
        children.put(key, child, this);
        changed(Change{*this, name, key});
        return child;
    }
    /// Takes in a record that was filled before anybody hears of it.
    template <class K, class E>
    void putChild(Collection<K, E>& children, const K& key, std::shared_ptr<E> child, std::string_view name) {
        children.put(key, std::move(child), this);
        changed(Change{*this, name, key});
    }
    template <class K, class E>
    void delChild(Collection<K, E>& children, const K& key, std::string_view name) {
        // The record lives on until its removal has been told.
        const auto removed = children.erase(key);
        if (removed) changed(Change{*this, name, key});
    }
    template <class K, class E>
    void delChildren(Collection<K, E>& children, std::string_view name) {
        while (auto key = children.firstKey()) delChild(children, *key, name);
    }

private:
    friend struct Notify;
    void write(const Value& patch, Tidings& later) override;
    [[nodiscard]] const R& self() const { return static_cast<const R&>(*this); }
    [[nodiscard]] R& self() { return static_cast<R&>(*this); }
};

template <class R>
std::string_view Record<R>::typeName() const {
    return R::type;
}

template <class R>
void Record<R>::visit(FieldVisitor& visitor) const {
    R::fields([&](const auto& field) { visitor.field(field.name, field.type(), field.read(self())); });
}

template <class R>
std::optional<Value> Record<R>::fieldValue(std::string_view name, std::string_view rest) const {
    std::optional<Value> found;
    R::fields([&](const auto& field) {
        if (field.name == name) found = field.entry(self(), rest);
    });
    return found;
}

template <class R>
Piece Record<R>::nextPiece(Place& place) const {
    Piece piece;
    std::size_t number = 0;
    const std::size_t wanted = place.field;
    R::fields([&](const auto& field) {
        if (number++ == wanted) piece = field.next(field, self(), place);
    });
    return piece;
}

template <class R>
std::optional<std::size_t> Record<R>::longField(std::string_view name) const {
    std::optional<std::size_t> found;
    std::size_t number = 0;
    R::fields([&](const auto& field) {
        if (field.isLong && field.name == name) found = number;
        ++number;
    });
    return found;
}

template <class R>
bool Record<R>::hasLongField() const {
    bool any = false;
    R::fields([&](const auto& field) { any = any || field.isLong; });
    return any;
}

template <class R>
bool Record<R>::hasField(std::string_view name) const {
    bool found = false;
    R::fields([&](const auto& field) { found = found || field.name == name; });
    return found;
}

template <class R>
std::shared_ptr<const Entity> Record<R>::child(std::string_view name, std::string_view key) const {
    std::shared_ptr<const Entity> found;
    R::fields([&](const auto& field) {
        if (field.name == name) found = field.child(self(), key);
    });
    return found;
}

template <class R>
std::shared_ptr<Entity> Record<R>::child(std::string_view name, std::string_view key) {
    std::shared_ptr<Entity> found;
    R::fields([&](const auto& field) {
        if constexpr (std::decay_t<decltype(field)>::kind == FieldKind::records) {
            if (field.name == name) found = field.child(self(), key);
        }
    });
    return found;
}

template <class R>
std::optional<FieldShape> Record<R>::fieldShape(std::string_view name) const {
    std::optional<FieldShape> found;
    std::size_t number = 0;
    R::fields([&](const auto& field) {
        if (field.name == name) found = FieldShape{number, field.kind, field.follows};
        ++number;
    });
    return found;
}

template <class R>
void Record<R>::visit(FieldVisitor& visitor, std::uint64_t fields) const {
    R::fields([&](const auto& field) {
        if constexpr (std::decay_t<decltype(field)>::kind == FieldKind::whole) {
            if ((fields & 1U) != 0) visitor.field(field.name, field.type(), field.read(self()));
        }
        fields >>= 1U;
    });
}

template <class R>
std::optional<std::string> Record<R>::keyText(const Change& change) const {
    std::optional<std::string> found;
    R::fields([&](const auto& field) {
        if (field.name == change.field) found = field.keyText(change);
    });
    return found;
}

template <class R>
MaybeProblem Record<R>::restore(std::string_view name, const Value& value, double shift) {
    MaybeProblem problem = Problem{"", "no such field in " + std::string{R::type}};
    R::fields([&](const auto& field) {
        if (field.name == name) problem = field.restore(self(), value, shift);
    });
    return problem ? std::optional{problem->below(name)} : std::nullopt;
}

template <class R>
MaybeProblem Record<R>::restoreEntry(std::string_view name, std::string_view key, const Value& value,
                                     double shift) {
    MaybeProblem problem = Problem{"", "no such field in " + std::string{R::type}};
    R::fields([&](const auto& field) {
        if (field.name == name) problem = field.restoreEntry(self(), key, value, shift);
    });
    return problem ? std::optional{problem->below(key).below(name)} : std::nullopt;
}

template <class R>
MaybeProblem Record<R>::check(const Value& patch) const {
    const Object* members = patch.object();
    if (members == nullptr) return badValue(patch, "an object");
    for (const auto& [name, value] : *members) {
        bool known = false;
        MaybeProblem problem;
        R::fields([&, &fieldName = name, &fieldValue = value](const auto& field) {
            if (field.name != fieldName) return;
            known = true;
            problem = field.check(self(), fieldValue);
        });
        if (!known) return Problem{"", "no field \"" + name + "\" in " + std::string{R::type}};
        if (problem) return problem->below(name);
    }
    return std::nullopt;
}

template <class R>
void Record<R>::write(const Value& patch, Tidings& later) {
    for (const auto& [name, value] : *patch.object()) {
        R::fields([&, &fieldName = name, &fieldValue = value](const auto& field) {
            if (field.name == fieldName) field.write(self(), fieldValue, later);
        });
    }
}

}  // namespace State
