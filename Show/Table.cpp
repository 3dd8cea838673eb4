#include "Show/Table.h"

#include "State/Codec.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace Show {

using State::Value;

namespace {

/// The object under the key, made when there is none.
State::Object& below(State::Object& members, const std::string& key) {
    if (members.empty() || members.back().first != key) members.emplace_back(key, Value{State::Object{}});
    return std::get<State::Object>(members.back().second.data);
}

constexpr std::size_t columnGap = 2;
/// What a column of sentences takes at the end of others rather than to begin a stanza of its own.
constexpr std::size_t leastSentence = 30;
/// A cell on a page on which there is no room at all.
constexpr std::size_t leastCell = 10;

/// Indented, and more so where it goes on.
std::string noteText(const Note& note, const Page& page) {
    constexpr std::size_t indent = 4;
    constexpr std::size_t deeper = 8;
    const std::string whole = printable(note.text);
    const std::size_t room = page.width - std::min(page.width, indent);
    if (page.width == 0 || page.cuts || columnsOf(whole) <= room) {
        std::string line{page.cuts ? beginning(whole, room) : whole};
        return std::string(indent, ' ') + painted(std::move(line), note.mood, page) + '\n';
    }
    std::string out;
    for (std::string& line : wrapped(whole, std::max(page.width, deeper + leastCell) - deeper))
        out += std::string(out.empty() ? indent : deeper, ' ') + painted(std::move(line), note.mood, page) +
               '\n';
    return out;
}

}  // namespace

std::string ageText(double seconds) {
    if (seconds < 0) return "-";
    const auto whole = static_cast<unsigned long long>(seconds);
    const unsigned long long days = whole / 86'400;
    const unsigned long long hours = whole / 3600;
    const unsigned long long minutes = whole / 60;
    char text[48];
    if (days > 0) {
        std::snprintf(text, sizeof text, "%llud%02lluh", days, hours % 24);
    } else if (hours > 0) {
        std::snprintf(text, sizeof text, "%lluh%02llum", hours, minutes % 60);
    } else if (minutes > 0) {
        std::snprintf(text, sizeof text, "%llum%02llus", minutes, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%llus", whole);
    }
    return text;
}

std::string spanText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}

std::string cellText(const Value& cell) {
    if (cell.isNull()) return "-";
    if (const auto* flag = std::get_if<bool>(&cell.data)) return *flag ? "yes" : "no";
    if (const auto* text = std::get_if<std::string>(&cell.data)) return text->empty() ? "-" : *text;
    if (const State::Object* members = cell.object()) {
        std::string all;
        for (const auto& [name, value] : *members)
            all += (all.empty() ? "" : ", ") + name + ' ' + cellText(value);
        return all.empty() ? "-" : all;
    }
    return State::text(cell);
}

std::string ageCell(const Value& cell) { return ageText(State::Codec<double>::decode(cell).value_or(-1.0)); }

std::string spanCell(const Value& cell) {
    const auto seconds = State::Codec<double>::decode(cell);
    return seconds ? spanText(*seconds) : "-";
}

std::optional<std::string> textOrNone(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional{text};
}
std::optional<double> ageOrNone(double seconds) {
    return seconds < 0 ? std::nullopt : std::optional{seconds};
}

std::vector<Table::Shown> Table::shown() const {
    std::vector<Shown> columns;
    for (std::size_t i = 0; i < heads_.size(); ++i) {
        const Head& head = heads_[i];
        if (head.heading.empty()) continue;
        Shown& column = columns.emplace_back();
        // Without a key that people see, the first column tells rows apart.
        column.key = i < keys_ || columns.size() == 1;
        column.cells.emplace_back(head.heading);
        column.moods.push_back(Mood::heading);
        for (const Line& line : lines_) {
            column.cells.push_back(printable(head.text(line.cells[i])));
            column.moods.push_back(head.mood != nullptr ? head.mood(line.cells[i]) : Mood::plain);
        }
        for (const std::string& cell : column.cells) column.width = std::max(column.width, columnsOf(cell));
    }
    return columns;
}

std::string Table::stanza(const std::vector<const Shown*>& columns, const Page& page, bool notes) const {
    std::string out;
    for (std::size_t row = 0; row <= lines_.size(); ++row) {
        std::vector<std::vector<std::string>> cells;
        std::size_t height = 1;
        for (const Shown* column : columns) {
            cells.push_back(wrapped(column->cells[row], column->width));
            height = std::max(height, cells.back().size());
        }
        for (std::size_t part = 0; part < height; ++part) {
            std::size_t at = 0;  // where the cell begins, and up to where something is written
            std::size_t end = 0;
            for (std::size_t i = 0; i < columns.size(); ++i) {
                if (part < cells[i].size() && !cells[i][part].empty() && !(page.cuts && at >= page.width)) {
                    const std::size_t room = page.cuts ? page.width - at : std::string::npos;
                    std::string text{beginning(cells[i][part], room)};
                    out.append(at - end, ' ');
                    end = at + columnsOf(text);
                    out += painted(std::move(text), columns[i]->moods[row], page);
                }
                at += columns[i]->width + columnGap;
            }
            out += '\n';
        }
        if (notes && row > 0) {
            for (const Note& note : lines_[row - 1].notes) out += noteText(note, page);
        }
    }
    return out;
}

std::string Table::text(const Page& page) const {
    std::vector<Shown> columns = shown();
    std::string out;
    for (auto next = columns.begin(); next != columns.end();) {
        std::vector<const Shown*> together;
        std::size_t taken = 0;
        const auto take = [&](Shown& column) {
            together.push_back(&column);
            taken += column.width + columnGap;
        };
        const bool first = next == columns.begin();
        if (!first) {
            out += '\n';
            for (auto column = columns.begin(); column != next; ++column) {
                if (column->key) take(*column);
            }
        }
        const std::size_t repeated = together.size();
        for (; next != columns.end(); ++next) {
            const bool fits = page.width == 0 || page.cuts || taken + next->width <= page.width;
            const std::size_t room = page.width - std::min(page.width, taken);
            const bool last = std::next(next) == columns.end();
            if (!fits && together.size() > repeated && !(last && room >= leastSentence)) break;
            if (!fits) next->width = std::min(next->width, std::max(room, leastCell));
            take(*next);
        }
        out += stanza(together, page, first);
    }
    return out;
}

Value Table::value() const {
    State::Object all;
    for (const Line& line : lines_) {
        State::Object* members = &all;
        for (std::size_t i = 0; i < keys_; ++i) members = &below(*members, cellText(line.cells[i]));
        for (std::size_t i = keys_; i < heads_.size(); ++i) {
            if (!heads_[i].name.empty()) members->emplace_back(std::string{heads_[i].name}, line.cells[i]);
        }
    }
    return Value{std::move(all)};
}

std::string facts(const std::vector<std::pair<std::string_view, std::string>>& lines, const Page& page) {
    constexpr std::size_t width = 13;
    std::string out;
    for (const auto& [name, text] : lines) {
        const std::size_t gap = std::max(width, name.size()) - name.size();
        const std::size_t room = std::max(page.width, width + leastCell) - width;
        std::string before = painted(std::string{name}, Mood::heading, page) + std::string(gap, ' ');
        for (const std::string& line : wrapped(printable(text), page.width == 0 ? text.size() : room)) {
            out += before + line + '\n';
            before.assign(width, ' ');
        }
    }
    return out;
}

}  // namespace Show
