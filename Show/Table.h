/// A table for people and for programs out of one description of its columns: aligned text, or an object of
/// rows by their keys.
///
/// As a value, a table has the same shape whatever is in it: every row has every member, null where nothing
/// is known, and no rows are an empty object.
#pragma once

#include "State/Value.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace Show {

/// "12s", "3m05s", "2h10m", "4d02h"; "-" for a negative age, which stands for "not known".
std::string ageText(double seconds);
/// "12.3 s"
std::string spanText(double seconds);

// How a cell reads; "-" for null.
std::string cellText(const State::Value& cell);
/// Of seconds, as `ageText` has them.
std::string ageCell(const State::Value& cell);
/// Of seconds, as `spanText` has them.
std::string spanCell(const State::Value& cell);

/// What cells hold: null for an empty text and for a negative age.
State::Value textOrNone(const std::string& text);
State::Value ageOrNone(double seconds);

/// One column; without a heading it is for programs only, without a name for people only.
template <class Row>
struct Column {
    using Text = std::string (*)(const State::Value& cell);

    /// `cell` makes a value of a row; it captures nothing.
    template <class Cell>
    constexpr Column(std::string_view forPeople, std::string_view forPrograms, Cell, Text reads = cellText)
        : heading{forPeople},
          name{forPrograms},
          cell{[](const Row& row) { return State::Value{Cell{}(row)}; }},
          text{reads} {
        static_assert(std::is_empty_v<Cell>);
    }

    std::string_view heading;
    std::string_view name;
    State::Value (*cell)(const Row& row);
    Text text;
};

class Table {
public:
    /// The first `keys` columns name a row; rows of the same first key follow one another.  `notes` are lines
    /// below a row, for people only, each with its newline.
    template <class Row>
    Table(std::type_identity_t<std::span<const Column<Row>>> columns, std::size_t keys,
          const std::vector<Row>& rows, std::type_identity_t<std::string (*)(const Row& row)> notes = nullptr)
        : keys_{keys} {
        for (const auto& column : columns) heads_.push_back({column.heading, column.name, column.text});
        for (const Row& row : rows) {
            Line line;
            for (const auto& column : columns) line.cells.push_back(column.cell(row));
            if (notes != nullptr) line.notes = notes(row);
            lines_.push_back(std::move(line));
        }
    }

    /// Each line ends with a newline.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] State::Value value() const;

private:
    struct Head {
        std::string_view heading;
        std::string_view name;
        std::string (*text)(const State::Value& cell);
    };
    struct Line {
        std::vector<State::Value> cells;
        std::string notes;
    };
    std::vector<Head> heads_;
    std::size_t keys_;
    std::vector<Line> lines_;
};

/// Lines that begin with a name each, aligned as in "talker       swp1".
std::string facts(const std::vector<std::pair<std::string_view, std::string>>& lines);

}  // namespace Show
