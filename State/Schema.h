/// What a value may be, in terms that become JSON Schema: told by the codecs and field lists that also check
/// values, so that an editor can say beforehand what the daemon would say.
#pragma once

#include "State/Value.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace State {

struct Schema {
    std::string type{};                ///< "boolean", "integer", "string", "object"; empty: any
    Value least{};                     ///< of a number; null: no bound
    Value most{};                      ///< the same
    std::string pattern{};             ///< of a text, a regular expression
    std::vector<std::string> names{};  ///< the only texts that it may be, if any
    std::vector<std::pair<std::string, Schema>> fields{};  ///< of a record, or of a value with parts
    std::vector<Schema> keyAndEntry{};  ///< of a map; in a patch, an entry may be null as well
    Value standard{};                   ///< where nothing is said; null: not told
    std::vector<Schema> choices{};      ///< where there are any, one of them and nothing else
    bool nullable = false;              ///< null where nothing is known
    bool computed = false;              ///< can only be read, so that no patch has it
};

Schema orNull(Schema schema);
Schema mapOf(Schema key, Schema entry);
Schema objectOf(std::vector<std::pair<std::string, Schema>> fields);

/// A regular expression for decimal numbers in that range, with or without leading zeros.
std::string numberPattern(std::uint64_t least, std::uint64_t most);

/// What a record like `sample` may be, or a patch of it.
template <class R>
Schema schemaOf(const R& sample) {
    Schema schema{.type = "object"};
    R::fields([&](const auto& field) { schema.fields.emplace_back(field.name, field.schema(sample)); });
    return schema;
}

}  // namespace State
