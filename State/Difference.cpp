#include "State/Difference.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace State {

namespace {

using Steps = std::vector<std::string>;

struct Field {
    std::string_view name;
    std::string_view type;
    Value value;
};

std::vector<Field> fieldsOf(const Entity& record) {
    struct Collector : FieldVisitor {
        void field(std::string_view name, std::string_view type, Value value) override {
            fields.push_back({name, type, std::move(value)});
        }
        std::vector<Field> fields;
    } collector;
    record.visit(collector);
    return std::move(collector.fields);
}

Steps below(const Steps& place, std::string_view name) {
    Steps longer = place;
    longer.emplace_back(name);
    return longer;
}

class Comparison {
public:
    std::vector<Difference> found;

    void records(const Steps& place, const Entity& was, const Entity& is) {
        const std::vector<Field> before = fieldsOf(was);
        const std::vector<Field> now = fieldsOf(is);
        for (std::size_t i = 0; i < std::min(before.size(), now.size()); ++i) {
            const auto& [name, type, value] = now[i];
            if (type == "derived" || before[i].value == value) continue;
            const Steps here = below(place, name);
            if (type == "map" || type == "collection") {
                entries(here, *before[i].value.object(), *value.object(),
                        [&, field = name](const std::string& key) {
                            return std::pair{was.child(field, key), is.child(field, key)};
                        });
            } else {
                found.push_back({here, before[i].value, value});
            }
        }
    }

private:
    template <class Children>
    void entries(const Steps& place, const Object& was, const Object& is, Children children) {
        std::map<std::string_view, const Value*> before;
        for (const auto& [key, value] : was) before[key] = &value;
        std::map<std::string_view, const Value*> now;
        for (const auto& [key, value] : is) now[key] = &value;
        for (const auto& [key, value] : was) {
            if (!now.contains(key)) found.push_back({below(place, key), value, {}});
        }
        for (const auto& [key, value] : is) {
            const auto held = before.find(key);
            if (held == before.end()) {
                found.push_back({below(place, key), {}, value});
            } else if (*held->second != value) {
                const auto [old, fresh] = children(key);
                if (old && fresh) {
                    records(below(place, key), *old, *fresh);
                } else {
                    found.push_back({below(place, key), *held->second, value});
                }
            }
        }
    }
};

}  // namespace

std::string Difference::path() const {
    std::string path;
    for (const std::string& name : where) (path += path.empty() ? "" : "/") += name;
    return path;
}

std::vector<Difference> differences(const Entity& was, const Entity& is) {
    Comparison comparison;
    comparison.records({}, was, is);
    return std::move(comparison.found);
}

Value patch(const std::vector<Difference>& differences) {
    Value whole{Object{}};
    for (const Difference& difference : differences) put(whole, difference.where, difference.is);
    return whole;
}

void put(Value& patch, const std::vector<std::string>& where, Value value) {
    Value* at = &patch;
    for (const std::string& name : where) {
        if (at->object() == nullptr) *at = Object{};
        auto& members = std::get<Object>(at->data);
        // From behind, where the one that was put last stands.
        const auto found = std::find_if(members.rbegin(), members.rend(),
                                        [&](const auto& member) { return member.first == name; });
        at = found != members.rend() ? &found->second : &members.emplace_back(name, Value{}).second;
    }
    *at = std::move(value);
}

}  // namespace State
