/// The account of how the wanted groups fare, for people: totals, what failed and why.
#pragma once

#include "Linux/groups/GroupWishes.h"
#include "Linux/records/GroupStatus.h"

#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace Linux {

/// Why an entry could not be made.
struct GroupProblem {
    enum class Kind : std::uint8_t {
        lasting,  ///< until something changes that will be noticed
        retried,  ///< only trying tells
        passing,  ///< not worth telling anybody yet
    };
    std::string text;
    Kind kind = Kind::lasting;
};

/// How the wishes for one address fared.
struct GroupOutcome {
    std::uint32_t wanted = 0;
    std::uint32_t programmed = 0;
    std::uint32_t foreign = 0;
    std::map<std::string, std::string> failed;  ///< as in the record
};
/// `why` holds the reasons for entries that could not be made.
GroupOutcome groupOutcome(std::span<const WantedGroup> wanted, const GroupTable& table,
                          const std::map<GroupMember, GroupProblem>& why);

/// "2/91:e0:f0:00:fe:01/swp1"
std::string failureKey(const WantedGroup& wanted);

class GroupOutcomes {
public:
    explicit GroupOutcomes(std::shared_ptr<GroupStatus> status) : status_{std::move(status)} {}

    /// In place of what was said of that address before.
    void enter(EthAddr mac, GroupOutcome outcome);
    void publish(std::size_t tableUsed, std::size_t tableSize, std::size_t tableRoom);

    [[nodiscard]] GroupStatus& status() { return *status_; }
    /// Why that entry of that address is not there; empty where it is not known.
    [[nodiscard]] std::string why(EthAddr mac, const std::string& entry) const;
    /// Addresses for which something failed.
    [[nodiscard]] const std::set<EthAddr>& failing() const { return failing_; }
    /// One line for each reason that was not told before, since it last went away.
    [[nodiscard]] std::vector<std::string> news();

private:
    struct Reason {
        std::size_t entries = 0;
        bool told = false;
        std::string example;
    };
    void leave(const GroupOutcome& outcome);

    const std::shared_ptr<GroupStatus> status_;
    GroupOutcome total_;  ///< without the map
    std::size_t missing_ = 0;
    std::map<EthAddr, GroupOutcome> outcomes_;
    std::set<EthAddr> failing_;
    std::map<std::string, Reason> reasons_;
};

}  // namespace Linux
