/// A table for people and for programs: aligned columns, or an object of rows by their keys.
#pragma once

#include "State/Value.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// "12s", "3m05s", "2h10m", "4d02h"; "-" for a negative age, which stands for "not known".
std::string ageText(double seconds);

class Table {
public:
    struct Column {
        std::string_view title;  ///< for people
        std::string_view key;    ///< for programs
    };

    /// The first `keys` columns name a row.
    Table(std::vector<Column> columns, std::size_t keys) : columns_{std::move(columns)}, keys_{keys} {}

    /// As many cells as there are columns.
    void row(std::vector<State::Value> cells);
    /// A line of text below the last row, for people only.
    void note(std::string line);

    [[nodiscard]] bool empty() const { return rows_.empty(); }
    /// A null cell is "-".  Each line ends with a newline.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] State::Value value() const;

private:
    struct Row {
        std::vector<State::Value> cells;
        std::string notes;
    };
    std::vector<Column> columns_;
    std::size_t keys_;
    std::vector<Row> rows_;
};

}  // namespace Show
