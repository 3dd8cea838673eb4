#include "Show/Table.h"

#include <algorithm>
#include <cstdio>

namespace Show {

using State::Value;

namespace {

std::string cellText(const Value& cell) {
    if (cell.isNull()) return "-";
    if (const auto* flag = std::get_if<bool>(&cell.data)) return *flag ? "yes" : "no";
    if (const auto* text = std::get_if<std::string>(&cell.data)) return text->empty() ? "-" : *text;
    if (cell.object() != nullptr) {
        std::string all;
        for (const auto& [name, value] : *cell.object())
            all += (all.empty() ? "" : ", ") + name + ' ' + cellText(value);
        return all;
    }
    return State::text(cell);
}

/// The object under the key, made when there is none.
State::Object& below(State::Object& members, const std::string& key) {
    if (members.empty() || members.back().first != key) members.emplace_back(key, Value{State::Object{}});
    return std::get<State::Object>(members.back().second.data);
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

void Table::row(std::vector<Value> cells) { rows_.push_back({std::move(cells), {}}); }

void Table::note(std::string line) { rows_.back().notes += std::move(line) + '\n'; }

std::string Table::text() const {
    std::vector<std::size_t> width;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        width.push_back(columns_[i].title.size());
        for (const Row& row : rows_) width[i] = std::max(width[i], cellText(row.cells[i]).size());
    }
    std::string out;
    const auto line = [&](auto&& cell) {
        std::string all;
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            all += cell(i);
            all.append(width[i] - cell(i).size() + 2, ' ');
        }
        all.erase(all.find_last_not_of(' ') + 1);
        out += all + '\n';
    };
    line([&](std::size_t i) { return std::string{columns_[i].title}; });
    for (const Row& row : rows_) {
        line([&](std::size_t i) { return cellText(row.cells[i]); });
        out += row.notes;
    }
    return out;
}

Value Table::value() const {
    State::Object all;
    for (const Row& row : rows_) {
        State::Object* members = &all;
        for (std::size_t i = 0; i < keys_; ++i) members = &below(*members, cellText(row.cells[i]));
        for (std::size_t i = keys_; i < columns_.size(); ++i)
            members->emplace_back(std::string{columns_[i].key}, row.cells[i]);
    }
    return Value{std::move(all)};
}

}  // namespace Show
