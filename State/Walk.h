/// Reading a record in pieces, over as many turns of the loop as it takes: a record with thousands of entries
/// takes longer to read than anybody else may be kept waiting.
///
/// The walk goes on by key and survives every change between two of its pieces.  What it tells is true at the
/// moment of its piece: two entries of one record may be told as they were at two moments, and an entry that
/// goes while it is read is told as it was last.
#pragma once

#include "State/Entity.h"

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace State {

/// A copy goes on from the same place by itself.
class Walk {
public:
    /// Over nothing.
    Walk() = default;
    /// Over the record, or what `below` names in it ("registeredStreams", "intf/swp1/attribute"); nothing
    /// when that names nothing.
    static std::optional<Walk> at(std::shared_ptr<const Entity> record, std::string_view below);

    /// One step of a walk: a member `name` with a value, or members that are the values of an object
    /// (`Kind::values`), or the beginning (`Kind::entries`) or end of an object that is spread over steps.
    /// The first step's name means nothing.  Empty when there are no more.
    std::optional<Piece> next();

private:
    struct Level {
        std::shared_ptr<const Entity> record;
        Place place;
        bool only = false;  ///< that field alone
    };
    std::optional<Piece> first_;
    std::vector<Level> levels_;
};

}  // namespace State
