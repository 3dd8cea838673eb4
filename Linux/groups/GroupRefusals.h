/// Tells the reservation machine, in "switch/refusals", which groups that listeners want cannot be made.
///
/// It answers at once by taking the listeners out of the group, and tries again when the entry goes; so
/// entries are written and taken back in pieces, the oldest refusal first.  A refusal outlasts its listeners:
/// it goes when the group has a place again, which then is kept for them for a while.  What the kernel
/// refuses for another reason than room is tried again later and later.
#pragma once

#include "Runtime/Time.h"
#include "Switch/Refusals.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Linux {

class GroupRefusals {
public:
    /// For so long a place waits for the listeners that were sent away: longer than a LeaveAll round.
    static constexpr std::chrono::seconds reserve{20};
    static constexpr std::chrono::seconds firstRetry{30};
    static constexpr std::chrono::seconds lastRetry{3600};

    explicit GroupRefusals(std::shared_ptr<Switch::Refusals> record) : record_{std::move(record)} {}

    /// Listeners want the group and it cannot be made.  `retried`: only trying tells whether that has
    /// changed.
    void refuse(const Switch::GroupId& id, const std::string& why, bool retried, Runtime::Time now);
    /// All that the group's record asks for is there.
    void fulfilled(const Switch::GroupId& id, Runtime::Time now);
    /// The group's record is gone.
    void drop(const Switch::GroupId& id);
    /// What was refused may be tried again at once: something has changed.
    void retryAll();

    /// VLANs of the groups of that address of which something is to be remembered.
    [[nodiscard]] std::vector<VlanId> of(EthAddr mac) const;
    /// Whether a place is to be found, or kept, for listeners of that group.
    [[nodiscard]] bool expected(const Switch::GroupId& id, Runtime::Time now) const;
    /// Why it may not be tried again yet; null: it may.
    [[nodiscard]] const std::string* heldBack(const Switch::GroupId& id, Runtime::Time now) const;
    /// Addresses whose time has come (to be tried again, or their place not to be kept any longer).
    [[nodiscard]] std::vector<EthAddr> due(Runtime::Time now);
    /// When that will be for the next one.
    [[nodiscard]] std::optional<Runtime::Time> nextDue() const;

    /// Brings the record in line, `atMost` entries of it; false when some are left.
    bool publish(std::size_t atMost);

private:
    struct Entry {
        bool refused = false;
        std::string why;
        std::uint64_t order = 0;  ///< since when it is refused
        unsigned attempts = 0;    ///< that the kernel refused
        Runtime::Time lastAttempt{};
        Runtime::Time until{};  ///< refused: not tried before; else the place is kept
    };
    void wait(const Switch::GroupId& id, Entry& entry, Runtime::Time until);

    const std::shared_ptr<Switch::Refusals> record_;
    std::map<EthAddr, std::map<VlanId, Entry>> entries_;
    std::set<std::pair<Runtime::Time, Switch::GroupId>> times_;
    std::deque<Switch::GroupId> toRefuse_;
    std::map<std::uint64_t, Switch::GroupId> toLift_;  ///< by age
    std::uint64_t next_ = 1;
};

}  // namespace Linux
