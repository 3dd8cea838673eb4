/// What programs can rely on: the schemas of all that `msrpctl --json` and `msrp-station --json` write.
#pragma once

#include "State/Schema.h"

#include <string>
#include <string_view>
#include <vector>

struct OutputSchema {
    std::string_view name;   ///< the command's words, joined by dashes
    std::string_view title;  ///< whose output it is
    State::Schema (*schema)();
};
const std::vector<OutputSchema>& outputSchemas();

/// As JSON Schema, with `lines` for people to read; null: of the configuration files.
std::string outputSchemaText(const OutputSchema* output, bool lines);
/// Makes a file NAME.schema.json of each in the directory, which must be there.  Throws `Failure`.
void writeOutputSchemas(const std::string& directory);
