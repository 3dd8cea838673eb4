/// Conceptual tables of a MIB (RFC 2578), read-only, as values: rows sorted by their index, so that the
/// instance of a name and the one behind it are found without a walk.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace Monitor {

using SubIds = std::vector<std::uint32_t>;

/// What one instance holds: a number, or up to eight octets, which stand in the number with the last one
/// lowest.
struct MibCell {
    enum class Kind : std::uint8_t { none, integer, gauge, counter64, octets };
    Kind kind = Kind::none;
    std::uint8_t length = 0;  ///< of octets
    std::uint64_t number = 0;
    bool operator==(const MibCell&) const = default;
};
constexpr MibCell integerCell(std::uint64_t number) { return {MibCell::Kind::integer, 0, number}; }
constexpr MibCell gaugeCell(std::uint64_t number) { return {MibCell::Kind::gauge, 0, number}; }
constexpr MibCell counterCell(std::uint64_t number) { return {MibCell::Kind::counter64, 0, number}; }
constexpr MibCell octetsCell(std::uint64_t octets, std::uint8_t length) {
    return {MibCell::Kind::octets, length, octets};
}
/// TruthValue of RFC 2579.
constexpr MibCell truthCell(bool value) { return integerCell(value ? 1 : 2); }

/// The index of a row: as many numbers as the longest of ours has.
class MibIndex {
public:
    static constexpr std::size_t longest = 11;

    void add(std::uint32_t subId) { subIds_[length_++] = subId; }
    /// As many octets of the number, the highest first: a string of fixed length (RFC 2578 7.7).
    void addOctets(std::uint64_t octets, std::size_t length) {
        while (length-- > 0) add(static_cast<std::uint32_t>(octets >> 8 * length & 0xff));
    }
    [[nodiscard]] std::span<const std::uint32_t> subIds() const { return std::span{subIds_}.first(length_); }

private:
    std::array<std::uint32_t, longest> subIds_{};
    std::size_t length_ = 0;
};

struct MibRow {
    static constexpr std::size_t columns = 8;
    MibIndex index;
    std::array<MibCell, columns> cells{};  ///< of column 1 and so on

    MibCell& column(std::size_t number) { return cells[number - 1]; }
};

class MibTables {
public:
    struct Instance {
        SubIds name;
        MibCell cell;
    };

    /// Rows in any order; `entry` names the table's entry object.
    void add(const SubIds& entry, std::vector<MibRow> rows);

    /// The value of exactly that name; none where there is no such instance.
    [[nodiscard]] MibCell get(std::span<const std::uint32_t> name) const;
    /// The first instance whose name comes behind that one.
    [[nodiscard]] std::optional<Instance> next(std::span<const std::uint32_t> name) const;

private:
    std::map<SubIds, std::vector<MibRow>> tables_;  ///< by entry
};

}  // namespace Monitor
