/// The base of every record in the state database.
///
/// A record is an entity with named fields.  A setter that changes a field tells the entity's reactors at
/// once, one after the other; setting a field to what it already is tells nobody.  A record that sits in a
/// collection of another record also tells the watchers of its ancestors (`watch`), which is how a change
/// feed follows a whole tree.  Nobody outside this room implements `Entity` directly: see State/Record.h.
#pragma once

#include "State/Value.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

namespace State {

class Entity;

/// One change of one field; `key` names the entry when the field is a map or a collection.
/// References are valid during the call only.
class Change {
public:
    Change(const Entity& changed, std::string_view fieldName) : entity{changed}, field{fieldName} {}
    template <class K>
    Change(const Entity& changed, std::string_view fieldName, const K& k)
        : entity{changed}, field{fieldName}, key_{&k}, keyType_{&typeid(K)} {}

    /// The key of the entry that was added, changed or removed; null when the field has no keys of type K.
    template <class K>
    [[nodiscard]] const K* key() const {
        return keyType_ != nullptr && *keyType_ == typeid(K) ? static_cast<const K*>(key_) : nullptr;
    }

    const Entity& entity;
    std::string_view field;

private:
    const void* key_ = nullptr;
    const std::type_info* keyType_ = nullptr;
};

using ChangeHandler = std::function<void(const Change&)>;

struct ReactorList;
struct ReactorSlot;

/// A live interest in an entity's changes; ends with its destruction.  May outlive the entity.
class Reactor {
public:
    Reactor() = default;
    Reactor(std::weak_ptr<ReactorList> list, std::shared_ptr<ReactorSlot> slot);
    Reactor(Reactor&&) noexcept = default;
    Reactor& operator=(Reactor&& other) noexcept;
    Reactor(const Reactor&) = delete;
    Reactor& operator=(const Reactor&) = delete;
    ~Reactor();

    /// Notifications off (false) and on again (true); changes in between are not told later.
    void hasNotificationActiveIs(bool active);
    [[nodiscard]] explicit operator bool() const { return slot_ != nullptr; }

private:
    void retire();
    std::weak_ptr<ReactorList> list_;
    std::shared_ptr<ReactorSlot> slot_;
};

/// Receives every field of a record, in the record's own order.
class FieldVisitor {
public:
    virtual ~FieldVisitor() = default;
    /// `type` is "bool", "u16", "enum", "map", "collection" and so on.
    virtual void field(std::string_view name, std::string_view type, Value value) = 0;
};

/// Where a reader in pieces stands in one record: before a field, or behind an entry of a long one.  It stays
/// good whatever changes meanwhile: what has gone is passed over, what has come behind it is met.
struct Place {
    std::size_t field = 0;             ///< in the record's own order
    bool entered = false;              ///< that field's entries have begun
    std::optional<std::string> key{};  ///< of the entry that was read last
};

/// What such a reader comes to next.
struct Piece {
    enum class Kind : std::uint8_t {
        value,    ///< a field, or an entry of a long one, whole
        values,   ///< some entries of a long field; `value` is their object
        record,   ///< an entry that is a record with long fields of its own
        entries,  ///< a long field begins
        end,      ///< a long field ends, or the record when it has no more fields
    };
    Kind kind = Kind::end;
    std::string name{};
    Value value{};
    std::shared_ptr<const Entity> record{};
};

/// How the parts of a field are told apart.
enum class FieldKind : std::uint8_t {
    whole,    ///< by nothing: it is read and written as one
    entries,  ///< by keys: too long to be read as one
    records,  ///< by keys, each a record of its own
};

/// Where a field stands in the record's own order, from 0, and what it is.
struct FieldShape {
    std::size_t number = 0;
    FieldKind kind = FieldKind::whole;
    bool follows = false;  ///< it changes with other fields, without a word of its own
};

/// What is to be told of changes once all of them are made: who hears of one finds the others made as well.
class Tidings {
public:
    void add(std::function<void()> telling) { tellings_.push_back(std::move(telling)); }
    /// Tells it, in the order in which it came in.
    void tell() {
        for (const auto& telling : std::exchange(tellings_, {})) telling();
    }

private:
    std::vector<std::function<void()>> tellings_;
};

class Entity {
public:
    Entity() = default;
    Entity(const Entity&) = delete;
    Entity& operator=(const Entity&) = delete;
    virtual ~Entity();

    /// The name under which the database makes records of this class, for example "Msrp::Config".
    [[nodiscard]] virtual std::string_view typeName() const = 0;
    virtual void visit(FieldVisitor& visitor) const = 0;
    /// The whole record, nested records included.
    [[nodiscard]] Value value() const;
    /// The field of that name and, where `rest` names keys below it ("swp1" or "2/intf/swp1"), the entry.
    /// Empty when there is no such field or entry.
    [[nodiscard]] virtual std::optional<Value> fieldValue(std::string_view name,
                                                          std::string_view rest) const = 0;

    /// What stands at `place`, which moves on; bounded work, however long the record.  See State/Walk.h.
    [[nodiscard]] virtual Piece nextPiece(Place& place) const = 0;
    /// The number of a field that `nextPiece` reads entry by entry; empty for others.
    [[nodiscard]] virtual std::optional<std::size_t> longField(std::string_view name) const = 0;
    [[nodiscard]] virtual bool hasLongField() const = 0;
    [[nodiscard]] virtual bool hasField(std::string_view name) const = 0;
    /// The record under `key` in the collection `field`, or null.
    [[nodiscard]] virtual std::shared_ptr<const Entity> child(std::string_view field,
                                                              std::string_view key) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Entity> child(std::string_view field, std::string_view key) = 0;

    [[nodiscard]] virtual std::optional<FieldShape> fieldShape(std::string_view name) const = 0;
    /// Receives the fields whose bits are set, the first field's being the lowest, but for those that are
    /// told apart by keys.
    virtual void visit(FieldVisitor& visitor, std::uint64_t fields) const = 0;
    /// The key of the entry that a change of this record was about.
    [[nodiscard]] virtual std::optional<std::string> keyText(const Change& change) const = 0;
    /// Makes a field what it was in another life of this record, as it was read there; entries that are not
    /// named go.  Fields that are computed from others stay as they are.  Times on the agent's clock are
    /// moved by `shift` seconds.  Not for fields that are told apart by keys.
    [[nodiscard]] virtual MaybeProblem restore(std::string_view field, const Value& value, double shift) = 0;
    /// The same for one entry of a field with `FieldKind::entries`; null: it is gone.
    [[nodiscard]] virtual MaybeProblem restoreEntry(std::string_view field, std::string_view key,
                                                    const Value& value, double shift) = 0;

    /// The record whose collection holds this one, or null.
    [[nodiscard]] const Entity* parent() const { return parent_; }

    /// Tells what would be wrong with writing `patch`; changes nothing.
    [[nodiscard]] virtual MaybeProblem check(const Value& patch) const = 0;
    /// Writes every field that `patch` names.  Maps and collections take the entries that it names, and lose
    /// those whose value is null (as in RFC 7396).  Writes nothing when anything is wrong.
    [[nodiscard]] MaybeProblem apply(const Value& patch);
    /// The same for one of several records that change together; the record must live until it is told.
    [[nodiscard]] MaybeProblem apply(const Value& patch, Tidings& later);

    /// Calls `handler` at every change of this record's own fields.
    [[nodiscard]] Reactor react(ChangeHandler handler) const;
    /// The same for this record and every record below it.
    [[nodiscard]] Reactor watch(ChangeHandler handler) const;

protected:
    template <class T>
    void assign(T& field, const T& value, std::string_view name) {
        if (field == value) return;
        field = value;
        changed(Change{*this, name});
    }
    void changed(const Change& change) const;

private:
    friend struct Ownership;
    template <class>
    friend class Record;

    /// Writes a patch that `check` found good.
    virtual void write(const Value& patch, Tidings& later) = 0;
    [[nodiscard]] Reactor subscribe(ChangeHandler handler, bool deep) const;

    Entity* parent_ = nullptr;
    mutable std::shared_ptr<ReactorList> reactors_;
};

/// The one place that links a record to the record whose collection holds it.
struct Ownership {
    static void parentIs(Entity& child, Entity* parent) { child.parent_ = parent; }
    static void write(Entity& child, const Value& patch, Tidings& later) { child.write(patch, later); }
};

}  // namespace State
