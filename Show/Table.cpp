#include "Show/Table.h"

#include "State/Codec.h"

#include <algorithm>
#include <cstdio>

namespace Show {

using State::Value;

namespace {

/// The object under the key, made when there is none.
State::Object& below(State::Object& members, const std::string& key) {
    if (members.empty() || members.back().first != key) members.emplace_back(key, Value{State::Object{}});
    return std::get<State::Object>(members.back().second.data);
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(width, text.size()), ' ');
    return text;
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

Value textOrNone(const std::string& text) { return text.empty() ? Value{} : Value{text}; }
Value ageOrNone(double seconds) { return seconds < 0 ? Value{} : Value{seconds}; }

std::string Table::text() const {
    std::vector<std::string> lines(lines_.size() + 1);
    for (std::size_t i = 0; i < heads_.size(); ++i) {
        if (heads_[i].heading.empty()) continue;
        std::vector<std::string> column{std::string{heads_[i].heading}};
        for (const Line& line : lines_) column.push_back(heads_[i].text(line.cells[i]));
        const std::size_t width = std::ranges::max_element(column, {}, &std::string::size)->size() + 2;
        for (std::size_t k = 0; k < column.size(); ++k) lines[k] += padded(std::move(column[k]), width);
    }
    std::string out;
    for (std::size_t k = 0; k < lines.size(); ++k) {
        lines[k].erase(lines[k].find_last_not_of(' ') + 1);
        out += lines[k] + '\n';
        if (k > 0) out += lines_[k - 1].notes;
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

std::string facts(const std::vector<std::pair<std::string_view, std::string>>& lines) {
    constexpr std::size_t width = 13;
    std::string out;
    for (const auto& [name, text] : lines) out += padded(std::string{name}, width) + text + '\n';
    return out;
}

}  // namespace Show
