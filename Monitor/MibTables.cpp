#include "Monitor/MibTables.h"

#include <algorithm>
#include <utility>

namespace Monitor {

namespace {

using Name = std::span<const std::uint32_t>;

bool comesBefore(Name a, Name b) { return std::ranges::lexicographical_compare(a, b); }

bool begins(Name name, Name with) {
    return name.size() >= with.size() && std::ranges::equal(name.first(with.size()), with);
}

/// The first instance of the table from that column on and, in the column itself, behind that index.
std::optional<MibTables::Instance> firstBehind(const SubIds& entry, const std::vector<MibRow>& rows,
                                               std::size_t column, std::optional<Name> index) {
    for (; column <= MibRow::columns; ++column, index.reset()) {
        auto row = rows.begin();
        if (index) {
            row = std::upper_bound(rows.begin(), rows.end(), *index,
                                   [](Name i, const MibRow& r) { return comesBefore(i, r.index.subIds()); });
        }
        for (; row != rows.end(); ++row) {
            const MibCell& cell = row->cells[column - 1];
            if (cell.kind == MibCell::Kind::none) continue;
            SubIds name = entry;
            name.push_back(static_cast<std::uint32_t>(column));
            name.insert(name.end(), row->index.subIds().begin(), row->index.subIds().end());
            return MibTables::Instance{std::move(name), cell};
        }
    }
    return std::nullopt;
}

}  // namespace

void MibTables::add(const SubIds& entry, std::vector<MibRow> rows) {
    std::ranges::sort(rows, [](const MibRow& a, const MibRow& b) {
        return comesBefore(a.index.subIds(), b.index.subIds());
    });
    tables_[entry] = std::move(rows);
}

MibCell MibTables::get(Name name) const {
    for (const auto& [entry, rows] : tables_) {
        if (!begins(name, entry) || name.size() == entry.size()) continue;
        const std::uint32_t column = name[entry.size()];
        if (column < 1 || column > MibRow::columns) return {};
        const Name index = name.subspan(entry.size() + 1);
        const auto row = std::lower_bound(rows.begin(), rows.end(), index, [](const MibRow& r, Name i) {
            return comesBefore(r.index.subIds(), i);
        });
        const bool found = row != rows.end() && std::ranges::equal(row->index.subIds(), index);
        return found ? row->cells[column - 1] : MibCell{};
    }
    return {};
}

std::optional<MibTables::Instance> MibTables::next(Name name) const {
    for (const auto& [entry, rows] : tables_) {
        std::size_t column = 1;
        std::optional<Name> index;
        if (begins(name, entry) && name.size() > entry.size()) {
            const std::uint32_t asked = name[entry.size()];
            column = std::clamp<std::size_t>(asked, 1, MibRow::columns + 1);
            // Behind "entry.0..." comes all of column 1.
            if (asked != 0) index = name.subspan(entry.size() + 1);
        } else if (comesBefore(entry, name) && !begins(name, entry)) {
            continue;  // all of the table lies before the name
        }
        if (auto found = firstBehind(entry, rows, column, index)) return found;
    }
    return std::nullopt;
}

}  // namespace Monitor
