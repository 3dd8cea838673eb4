/// The table that the fence's programs look into: which streams may keep their priority on which port, and
/// which addresses have groups.
#pragma once

#include "Linux/fence/KernelTable.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

namespace Linux {

class FenceTable {
public:
    static constexpr std::uint32_t defaultRoom = 65'536;

    /// `room`: streams and addresses that fit.
    explicit FenceTable(std::uint32_t room = defaultRoom) : table_{room} {}

    /// Shall be in it, or not.
    void want(const FenceKey& key, bool wanted);
    /// Makes at most so many changes; true when none are left, or none can be made: see `problem`.
    bool carryOut(std::size_t changes);
    /// For programs; -1 before `carryOut`.
    [[nodiscard]] int descriptor() const { return table_.descriptor(); }
    /// Whether all that was wanted at some time was in it: before that it must not decide anything.
    [[nodiscard]] bool filled() const { return filled_ && problem_.empty(); }
    /// Why it cannot be relied upon; empty: it can.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    /// After a problem: begins anew with an empty one, into which all that is wanted has to go.  False when
    /// there was none.
    bool retry();

private:
    KernelTable<std::uint8_t> table_;
    std::set<FenceKey> wanted_;
    std::set<FenceKey> held_;
    std::set<FenceKey> due_;  ///< in one of the two only
    bool filled_ = false;
    std::string problem_;
};

}  // namespace Linux
