#include "Control/RecordAccess.h"

#include "Control/Json.h"
#include "Runtime/Text.h"
#include "State/Record.h"

#include <utility>

namespace Control {

using State::Value;

namespace {

std::string noRecord(std::string_view path) { return "no record \"" + std::string{path} + '"'; }

std::string root(std::string_view path, std::string_view below) {
    return std::string{path.substr(0, path.size() - below.size() - (below.empty() ? 0 : 1))};
}

/// "a/b" and v become {"a": {"b": v}}.
Value patch(std::string_view below, const Value& value) {
    if (below.empty()) return value;
    const auto [name, rest] = State::splitPath(below);
    return Value{State::Object{{std::string{name}, patch(rest, value)}}};
}

Value valueAt(const State::Entity& record, std::string_view below) {
    if (below.empty()) return record.value();
    const auto [name, rest] = State::splitPath(below);
    return record.fieldValue(name, rest).value_or(Value{});
}

/// In a line of text.
std::string shown(const Value& value) {
    constexpr std::size_t most = 200;
    std::string text = value.isNull() ? "nothing" : jsonText(value);
    return text.size() <= most ? text : text.substr(0, most) + "...";
}

}  // namespace

std::string RecordAccess::Written::text() const {
    return Runtime::concat(path, " is now ", shown(after), ", was ", shown(before), ": ", who);
}

std::optional<State::Walk> RecordAccess::read(std::string_view path, std::string& problem) const {
    const auto [record, below] = database_.resolve(path);
    if (!record) {
        problem = noRecord(path);
        return std::nullopt;
    }
    auto walk = State::Walk::at(record, below);
    if (!walk) problem = "nothing at \"" + std::string{path} + '"';
    return walk;
}

Answer RecordAccess::set(std::string_view path, const Value& value, std::string_view who) {
    const auto [record, below] = database_.resolve(path);
    if (!record) return {{}, noRecord(path)};
    const std::string name = root(path, below);
    if (!writable_.contains(name)) return {{}, name + ": cannot be written, it is not configuration"};
    const Value whole = patch(below, value);
    if (const auto problem = record->check(whole)) return {{}, problem->below(name).text()};
    if (std::string refusal = guard_ ? guard_(name, whole) : std::string{}; !refusal.empty())
        return {{}, std::move(refusal)};
    const Value before = valueAt(*record, below);
    if (const auto problem = record->apply(whole)) return {{}, problem->below(name).text()};
    const Value after = valueAt(*record, below);
    if (written_ && before != after) written_({path, before, after, who});
    if (follower_) follower_(name, whole);
    return {};
}

Answer RecordAccess::list() const {
    State::Object records;
    for (const std::string& path : database_.paths()) {
        records.emplace_back(path, State::Object{{"type", Value{database_.entity(path)->typeName()}},
                                                 {"writable", Value{writable_.contains(path)}}});
    }
    return {Value{std::move(records)}, {}};
}

std::shared_ptr<const State::Entity> RecordAccess::watchable(std::string_view path,
                                                             std::string& problem) const {
    const auto [record, below] = database_.resolve(path);
    if (!record) {
        problem = noRecord(path);
    } else if (const auto [field, rest] = State::splitPath(below);
               !below.empty() && !record->hasField(field)) {
        problem = "no field \"" + std::string{field} + "\" in " + std::string{record->typeName()};
    } else {
        return record;
    }
    return nullptr;
}

}  // namespace Control
