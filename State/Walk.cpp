#include "State/Walk.h"

#include "State/Record.h"

#include <utility>

namespace State {

using Kind = Piece::Kind;

std::optional<Walk> Walk::at(std::shared_ptr<const Entity> record, std::string_view below) {
    Walk walk;
    while (!below.empty()) {
        const auto [field, rest] = splitPath(below);
        const auto [key, deeper] = splitPath(rest);
        if (auto child = record->child(field, key)) {
            record = std::move(child);
            below = deeper;
            continue;
        }
        if (const auto number = record->longField(field); number && rest.empty()) {
            walk.levels_.push_back({std::move(record), Place{.field = *number}, true});
            return walk;
        }
        auto value = record->fieldValue(field, rest);
        if (!value) return std::nullopt;
        walk.first_ = Piece{.kind = Kind::value, .value = std::move(*value)};
        return walk;
    }
    walk.first_ = Piece{.kind = Kind::entries};
    walk.levels_.push_back({std::move(record), {}});
    return walk;
}

std::optional<Piece> Walk::next() {
    if (first_) return std::exchange(first_, std::nullopt);
    if (levels_.empty()) return std::nullopt;
    Level& level = levels_.back();
    const bool inField = level.place.entered;
    Piece piece = level.record->nextPiece(level.place);
    if (piece.kind == Kind::record) {
        levels_.push_back({std::move(piece.record), {}});
        return Piece{.kind = Kind::entries, .name = std::move(piece.name)};
    }
    // The end of a field ends a walk over that field alone; the end of the fields ends the record.
    if (piece.kind == Kind::end && (level.only || !inField)) levels_.pop_back();
    return piece;
}

}  // namespace State
