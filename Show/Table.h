/// A table for people and for programs out of one description of its columns: aligned text, or an object of
/// rows by their keys.
///
/// On a page that is too narrow the text folds: further stanzas have the other columns, with those that name
/// the row repeated; and a column of sentences is broken at blanks.
///
/// As a value, a table has the same shape whatever is in it: every row has every member, null where nothing
/// is known, and no rows are an empty object.  The schema of that comes from the types of the cells.
///
/// What is no table but has members is described by columns as well (`objectValue`).
#pragma once

#include "Show/Page.h"
#include "State/Codec.h"
#include "State/Record.h"
#include "State/Value.h"

#include <cstddef>
#include <optional>
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

// What cells hold: nothing for an empty text and for a negative age.
std::optional<std::string> textOrNone(const std::string& text);
std::optional<double> ageOrNone(double seconds);
/// Out of a record; nothing where there is none, or where it is no T.
template <class T>
std::optional<T> known(const State::Value& value) {
    return State::Codec<T>::decode(value);
}
/// The number of a stream or of a bridge.
struct HexId {
    std::uint64_t number;
};
/// What a record of class R says, or null.
template <class R>
struct Recorded {
    const State::Value& value;
};
/// By numbers from "1" on.
template <class T>
struct Numbered {
    std::vector<T> all;
};

/// One column; without a heading it is for programs only, without a name for people only.
template <class Row>
struct Column {
    using Text = std::string (*)(const State::Value& cell);
    using Feel = Mood (*)(const State::Value& cell);

    /// `cell` makes of a row what has a codec, which only has to encode, and to tell the schema where the
    /// column is for programs; it captures nothing.
    template <class Cell>
    constexpr Column(std::string_view forPeople, std::string_view forPrograms, Cell, Text reads = cellText,
                     Feel feels = nullptr)
        : heading{forPeople},
          name{forPrograms},
          cell{[](const Row& row) { return State::Codec<Held<Cell>>::encode(Cell{}(row)); }},
          text{reads},
          mood{feels},
          schema{State::Codec<Held<Cell>>::schema} {
        static_assert(std::is_empty_v<Cell>);
    }
    template <class Cell>
    constexpr Column(std::string_view forPrograms, Cell made) : Column{"", forPrograms, made} {}

    std::string_view heading;
    std::string_view name;
    State::Value (*cell)(const Row& row);
    Text text;
    Feel mood;
    State::Schema (*schema)();

private:
    template <class Cell>
    using Held = std::remove_cvref_t<std::invoke_result_t<Cell, const Row&>>;
};

/// The members for programs of one row.
template <class Row>
State::Object objectValue(std::type_identity_t<std::span<const Column<Row>>> columns, const Row& row) {
    State::Object members;
    for (const Column<Row>& column : columns) {
        if (!column.name.empty()) members.emplace_back(column.name, column.cell(row));
    }
    return members;
}
/// What such an object is, from the column `keys` on.
template <class Row, std::size_t count>
State::Schema objectSchema(const Column<Row> (&columns)[count], std::size_t keys = 0) {
    State::Schema schema{.type = "object"};
    for (std::size_t i = keys; i < count; ++i) {
        if (!columns[i].name.empty()) schema.fields.emplace_back(columns[i].name, columns[i].schema());
    }
    return schema;
}
/// What `Table::value` is.
template <class Row, std::size_t count>
State::Schema tableSchema(const Column<Row> (&columns)[count], std::size_t keys) {
    State::Schema schema = objectSchema(columns, keys);
    for (std::size_t i = 0; i < keys; ++i) schema = State::mapOf({.type = "string"}, std::move(schema));
    return schema;
}

/// A line below a row, for people only.
struct Note {
    std::string text;
    Mood mood = Mood::plain;
};
using Notes = std::vector<Note>;

class Table {
public:
    /// The first `keys` columns name a row; rows of the same first key follow one another.
    template <class Row>
    Table(std::type_identity_t<std::span<const Column<Row>>> columns, std::size_t keys,
          const std::vector<Row>& rows, std::type_identity_t<Notes (*)(const Row& row)> notes = nullptr)
        : keys_{keys} {
        for (const auto& column : columns)
            heads_.push_back({column.heading, column.name, column.text, column.mood});
        for (const Row& row : rows) {
            Line line;
            for (const auto& column : columns) line.cells.push_back(column.cell(row));
            if (notes != nullptr) line.notes = notes(row);
            lines_.push_back(std::move(line));
        }
    }

    /// Each line ends with a newline.
    [[nodiscard]] std::string text(const Page& page = {}) const;
    [[nodiscard]] State::Value value() const;

private:
    struct Head {
        std::string_view heading;
        std::string_view name;
        std::string (*text)(const State::Value& cell);
        Mood (*mood)(const State::Value& cell);
    };
    struct Line {
        std::vector<State::Value> cells;
        Notes notes;
    };
    /// A column as people see it.
    struct Shown {
        std::vector<std::string> cells;  ///< the heading first
        std::vector<Mood> moods;
        std::size_t width = 0;
        bool key = false;
    };
    [[nodiscard]] std::vector<Shown> shown() const;
    [[nodiscard]] std::string stanza(const std::vector<const Shown*>& columns, const Page& page,
                                     bool notes) const;
    std::vector<Head> heads_;
    std::size_t keys_;
    std::vector<Line> lines_;
};

/// Lines that begin with a name each, aligned as in "talker       swp1".
std::string facts(const std::vector<std::pair<std::string_view, std::string>>& lines, const Page& page = {});

}  // namespace Show

/// For people only: it says nothing of what it is.
template <>
struct State::Codec<State::Value> {
    static Value encode(const Value& v) { return v; }
    static Schema schema() { return {}; }
};
template <>
struct State::Codec<Show::HexId> {
    static Value encode(Show::HexId v) { return hexText(v.number); }
    static Schema schema() { return HexKey::schema(); }
};
template <class R>
struct State::Codec<Show::Recorded<R>> {
    static Value encode(const Show::Recorded<R>& v) { return v.value; }
    static Schema schema() { return orNull(schemaOf(R{{}})); }
};
template <class T>
struct State::Codec<Show::Numbered<T>> {
    static Value encode(const Show::Numbered<T>& v) {
        Object all;
        for (const T& one : v.all) all.emplace_back(std::to_string(all.size() + 1), Codec<T>::encode(one));
        return all;
    }
    static Schema schema() { return mapOf(KeyText<std::uint64_t>::schema(), Codec<T>::schema()); }
};
