/// Where things lie in the store, for this program and for all others that read or write there.
///
/// All keys of a switch begin with "msrp:{NAME}:"; the braces keep them together in a cluster.  "record:PATH"
/// is a hash of the fields of a record, or of one in a collection, each in its JSON form; a long field with
/// entries is a hash of its own, "record:PATH/FIELD", of the entries by their keys.  "records" is the set of
/// all such paths, also of records without fields.  "meta" is a hash: "schema" the form of all this, "fence"
/// the number of the role's last change, "holder" who acts and "until" until when on the store's clock in
/// milliseconds, "seen" when it was heard of last, "sequence" the number of the last batch, "whole" 1 when
/// everything is there (0 while it is written anew), "clock" the wall-clock time in seconds at which the
/// writer's clock was at 0.  "agents" is who is there: until when, whether it is ready to act, its name.
/// Channels: "changes" has for each batch its sequence and the paths that changed in it, a line each; "roles"
/// the new holder at each change of role; on "inputs" other programs tell the paths that they have written, a
/// line each.
#pragma once

#include "Runtime/Text.h"

#include <string>
#include <string_view>

namespace Store {

/// The form of what lies in the store.  One that is newer is not touched.
inline constexpr std::uint64_t schemaVersion = 1;

struct Names {
    explicit Names(std::string_view name)
        : prefix{Runtime::concat("msrp:{", name, "}:")},
          record{prefix + "record:"},
          records{prefix + "records"},
          meta{prefix + "meta"},
          agents{prefix + "agents"},
          changes{prefix + "changes"},
          roles{prefix + "roles"},
          inputs{prefix + "inputs"} {}

    std::string prefix;
    std::string record;  ///< before a path
    std::string records;
    std::string meta;
    std::string agents;
    std::string changes;
    std::string roles;
    std::string inputs;
};

}  // namespace Store
