/// Schemas of records, and of what is shown of them, as JSON Schema (draft 2020-12).
#pragma once

#include "State/Schema.h"

#include <cstdint>
#include <string>

namespace Control {

enum class SchemaFor : std::uint8_t {
    patch,   ///< any of the fields that can be written, and null for entries that are to go
    output,  ///< every field, and nothing else
};

/// With `lines` for people to read.  What JSON Schema cannot say (a whole number that is written 3.0, a range
/// of VLANs that runs backwards) passes it.
std::string schemaText(const std::string& title, const State::Schema& schema, SchemaFor what, bool lines);

}  // namespace Control
