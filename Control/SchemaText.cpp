#include "Control/SchemaText.h"

#include "Control/Json.h"

#include <nlohmann/json.hpp>

namespace Control {

namespace {

using OrderedJson = nlohmann::ordered_json;

OrderedJson json(const State::Value& value) { return OrderedJson::parse(jsonText(value)); }

OrderedJson json(const State::Schema& schema, SchemaFor what) {
    const bool whole = what == SchemaFor::output;
    OrderedJson out = OrderedJson::object();
    for (const State::Schema& choice : schema.choices) out["anyOf"].push_back(json(choice, what));
    if (schema.type.empty()) return out;
    out["type"] = schema.type;
    if (schema.nullable) out["type"] = OrderedJson::array({schema.type, "null"});
    if (!schema.least.isNull()) out["minimum"] = json(schema.least);
    if (!schema.most.isNull()) out["maximum"] = json(schema.most);
    if (!schema.pattern.empty()) out["pattern"] = schema.pattern;
    if (!schema.names.empty()) out["enum"] = schema.names;
    if (!schema.names.empty() && schema.nullable) out["enum"].push_back(nullptr);
    if (!schema.standard.isNull() && !whole) out["default"] = json(schema.standard);
    if (schema.type != "object") return out;
    if (!schema.keyAndEntry.empty()) {
        const OrderedJson entry = json(schema.keyAndEntry.back(), what);
        out["propertyNames"] = json(schema.keyAndEntry.front(), what);
        out["additionalProperties"] = entry;
        if (!whole)
            out["additionalProperties"] = {{"anyOf", OrderedJson::array({entry, {{"type", "null"}}})}};
        return out;
    }
    out["properties"] = OrderedJson::object();
    OrderedJson required = OrderedJson::array();
    for (const auto& [name, field] : schema.fields) {
        if (field.computed && !whole) continue;
        out["properties"][name] = json(field, what);
        required.push_back(name);
    }
    if (whole) out["required"] = std::move(required);
    out["additionalProperties"] = false;
    return out;
}

}  // namespace

std::string schemaText(const std::string& title, const State::Schema& schema, SchemaFor what, bool lines) {
    OrderedJson out;
    out["$schema"] = "https://json-schema.org/draft/2020-12/schema";
    out["title"] = title;
    out.update(json(schema, what));
    return out.dump(lines ? 2 : -1);
}

}  // namespace Control
