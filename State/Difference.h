/// What differs between two records of one class, field by field.
#pragma once

#include "State/Entity.h"
#include "State/Value.h"

#include <string>
#include <vector>

namespace State {

struct Difference {
    std::vector<std::string> where;  ///< the field, and the keys below it
    Value was;                       ///< null: there was nothing
    Value is;                        ///< null: there is nothing any more

    /// "intfEnable/swp1"
    [[nodiscard]] std::string path() const;
    bool operator==(const Difference&) const = default;
};

/// In the order of the fields; maps and collections entry by entry, and what has gone first.  An entry that
/// is new is told whole.  Computed fields are left out.
std::vector<Difference> differences(const Entity& was, const Entity& is);

/// What makes of the one the other (`Entity::apply`).
Value patch(const std::vector<Difference>& differences);

/// Puts `value` at that place of a patch, in place of what is said there.
void put(Value& patch, const std::vector<std::string>& where, Value value);

}  // namespace State
