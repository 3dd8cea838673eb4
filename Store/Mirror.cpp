#include "Store/Mirror.h"

#include "Control/Json.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Store {

namespace {

constexpr std::uint64_t allFields = std::numeric_limits<std::uint64_t>::max();
/// Names and values in one command of a script, whose arguments lie on a stack of some thousands.
constexpr std::size_t mostPairs = 1'000;

struct FieldNames : State::FieldVisitor {
    void field(std::string_view name, std::string_view, State::Value) override { all.push_back(name); }
    std::vector<std::string_view> all;
};

/// Names and JSON texts of fields, as words.
struct Words : State::FieldVisitor {
    void field(std::string_view name, std::string_view, State::Value value) override {
        all.emplace_back(name);
        all.push_back(Control::jsonText(value));
    }
    std::vector<std::string> all;
};

}  // namespace

Mirror::Mirror(const State::Database& database, const std::vector<std::string>& paths, Lazy lazy,
               std::function<void()> wake)
    : lazy_{std::move(lazy)}, wake_{std::move(wake)} {
    for (const std::string& path : paths) {
        std::shared_ptr<const State::Entity> root = database.entity(path);
        if (!root) continue;
        add(path, *root);
        reactors_.push_back(root->watch([this](const State::Change& change) { changed(change); }));
        roots_.push_back(std::move(root));
    }
}

Mirror::~Mirror() = default;

const Mirror::Shape& Mirror::shapeOf(const State::Entity& entity) {
    const auto [at, fresh] = shapes_.try_emplace(entity.typeName());
    if (!fresh) return at->second;
    FieldNames names;
    entity.visit(names, allFields);
    for (const std::string_view name : names.all) {
        const auto shape = *entity.fieldShape(name);
        const std::uint64_t bit = std::uint64_t{1} << shape.number;
        if (shape.follows) at->second.follows |= bit;
        if (lazy_.contains(Runtime::concat(entity.typeName(), '/', name))) at->second.lazy |= bit;
    }
    return at->second;
}

Mirror::Node& Mirror::node(std::string path, const State::Entity& entity) {
    const auto at = nodes_.try_emplace(std::move(path)).first;
    Node& node = at->second;
    node.entity = &entity;
    node.path = &at->first;
    node.whole = true;
    gone_.erase(at->first);
    due(node);
    return node;
}

void Mirror::add(std::string path, const State::Entity& entity) {
    Node& record = node(std::move(path), entity);
    record.shape = &shapeOf(entity);
    record.changed = allFields;
    byEntity_[&entity] = &record;
    if (record.shape->polled() != 0) polled_.insert(&record);
    // What it holds already.
    State::Place place;
    std::string field;
    for (bool inside = false;;) {
        const State::Piece piece = entity.nextPiece(place);
        if (piece.kind == State::Piece::Kind::end) {
            if (!std::exchange(inside, false)) break;
        } else if (piece.kind == State::Piece::Kind::entries) {
            inside = true;
            field = piece.name;
            if (entity.fieldShape(field)->kind == State::FieldKind::entries)
                addEntries(*record.path, entity, field);
        } else if (inside && piece.kind != State::Piece::Kind::values) {
            if (const auto child = entity.child(field, piece.name))
                add(Runtime::concat(*record.path, '/', field, '/', piece.name), *child);
        }
    }
}

void Mirror::addEntries(const std::string& path, const State::Entity& entity, std::string_view field) {
    Node& entries = node(Runtime::concat(path, '/', field), entity);
    // The name lies in the path for as long as the node does.
    entries.entries = std::string_view{*entries.path}.substr(path.size() + 1);
}

void Mirror::remove(const std::string& path) {
    const auto top = nodes_.find(path);
    if (top == nodes_.end()) return;
    const std::string below = path + '/';
    auto at = std::next(top);
    drop(top);
    while (at != nodes_.end() && at->first.starts_with(below)) drop(at++);
}

void Mirror::drop(Nodes::iterator at) {
    if (at->second.isDue) due_.erase(at->second.place);
    lazyDue_.erase(&at->second);
    polled_.erase(&at->second);
    told(at->second);
    if (at->second.entries.empty()) byEntity_.erase(at->second.entity);
    if (gone_.size() < mostGone) {
        wakeOnce();
        gone_.insert(at->first);
    } else {
        overflowed_ = true;
    }
    nodes_.erase(at);
}

void Mirror::changed(const State::Change& change) {
    const auto known = byEntity_.find(&change.entity);
    if (known == byEntity_.end()) return;
    Node& node = *known->second;
    const auto shape = change.entity.fieldShape(change.field);
    if (!shape) return;
    if (shape->kind == State::FieldKind::whole) {
        const std::uint64_t bit = std::uint64_t{1} << shape->number;
        node.changed |= bit | (node.shape->follows & ~node.shape->lazy);
        if ((bit & node.shape->lazy) == 0) {
            due(node);
        } else if (!node.isDue) {
            lazyDue_.insert(&node);
        }
        return;
    }
    const auto key = change.entity.keyText(change);
    std::string path = Runtime::concat(*node.path, '/', change.field);
    if (shape->kind == State::FieldKind::entries) {
        const auto entries = nodes_.find(path);
        if (entries == nodes_.end()) return;
        if (key) {
            entries->second.keys.insert(*key);
        } else {
            entries->second.whole = true;
        }
        return due(entries->second);
    }
    if (!key) return;
    path += '/' + *key;
    const auto child = change.entity.child(change.field, *key);
    if (const auto old = nodes_.find(path); old != nodes_.end()) {
        if (child.get() == old->second.entity) return;
        remove(path);
    }
    if (child) add(std::move(path), *child);
}

void Mirror::due(Node& node) {
    if (node.isDue) return;
    wakeOnce();
    node.isDue = true;
    node.place = due_.insert(due_.end(), &node);
}

void Mirror::told(Node& node) {
    if (std::exchange(node.toTell, false)) --toTell_;
}

void Mirror::wakeOnce() {
    if (!waiting()) wake_();
}

void Mirror::tell(Node& node, Batch& batch) {
    std::vector<std::string> present;
    std::vector<std::string> absent;
    if (node.entries.empty()) {
        Words words;
        node.entity->visit(words, node.changed);
        present = std::move(words.all);
    } else if (node.whole) {
        const auto value = node.entity->fieldValue(node.entries, {});
        for (const auto& [key, entry] : *value->object()) {
            present.push_back(key);
            present.push_back(Control::jsonText(entry));
        }
    } else {
        for (const std::string& key : node.keys) {
            if (const auto entry = node.entity->fieldValue(node.entries, key)) {
                present.push_back(key);
                present.push_back(Control::jsonText(*entry));
            } else {
                absent.push_back(key);
            }
        }
    }
    const auto command = [&](std::string kind, std::vector<std::string>& words, std::size_t begin,
                             std::size_t end) {
        batch.words.push_back(std::move(kind));
        batch.words.push_back(*node.path);
        batch.words.push_back(std::to_string(end - begin));
        batch.octets += node.path->size();
        for (std::size_t i = begin; i < end; ++i) {
            batch.octets += words[i].size();
            batch.words.push_back(std::move(words[i]));
        }
    };
    if (node.whole) command("new", present, 0, 0);
    for (std::size_t i = 0; i < present.size(); i += 2 * mostPairs)
        command("set", present, i, std::min(present.size(), i + 2 * mostPairs));
    for (std::size_t i = 0; i < absent.size(); i += mostPairs)
        command("del", absent, i, std::min(absent.size(), i + mostPairs));
    node.changed = 0;
    node.keys.clear();
    node.whole = false;
}

Mirror::Batch Mirror::take(std::size_t octets) {
    Batch batch;
    while (!gone_.empty() && batch.octets < octets) {
        auto path = gone_.extract(gone_.begin());
        batch.octets += path.value().size();
        ++batch.records;
        batch.words.insert(batch.words.end(), {"gone", std::move(path.value()), "0"});
    }
    while (!due_.empty() && batch.octets < octets) {
        Node& node = *due_.front();
        due_.pop_front();
        node.isDue = false;
        lazyDue_.erase(&node);
        told(node);
        ++batch.records;
        tell(node, batch);
    }
    return batch;
}

void Mirror::tellAll(const std::vector<std::string>& known) {
    gone_.clear();
    overflowed_ = false;
    for (const std::string& path : known) {
        if (!nodes_.contains(path)) gone_.insert(path);
    }
    for (auto& [path, node] : nodes_) {
        node.changed = allFields;
        node.whole = true;
        node.toTell = true;
        if (std::exchange(node.isDue, true)) continue;
        node.place = due_.insert(due_.end(), &node);
    }
    toTell_ = nodes_.size();
    if (waiting()) wake_();
}

void Mirror::tellLazy() {
    for (Node* node : polled_) {
        node->changed |= node->shape->polled();
        due(*node);
    }
    for (Node* node : std::exchange(lazyDue_, {})) due(*node);
}

void Mirror::forget() {
    for (Node* node : std::exchange(due_, {})) {
        node->isDue = false;
        node->changed = 0;
        node->keys.clear();
        node->whole = false;
        told(*node);
    }
    lazyDue_.clear();
    gone_.clear();
    overflowed_ = false;
}

}  // namespace Store
