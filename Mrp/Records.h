/// The engine's configuration and status records.
#pragma once

#include <array>
#include <memory>
#include <string_view>

#include "State/Record.h"
#include "Switch/IntfId.h"

namespace Mrp {

/// "mrp/config".  Timers in milliseconds (IEEE 802.1Q 10.7.4 and 10.7.11).
class MrpConfig : public State::Record<MrpConfig> {
public:
    static constexpr std::string_view type = "Mrp::MrpConfig";

    /// Upper bound of the wait for a transmit opportunity, 10 to 1000 ms.
    [[nodiscard]] std::uint32_t joinTime() const { return joinTime_; }
    void joinTimeIs(std::uint32_t v) { assign(joinTime_, v, "joinTime"); }
    /// How long a registration outlives a Leave, 100 to 60000 ms.
    [[nodiscard]] std::uint32_t leaveTime() const { return leaveTime_; }
    void leaveTimeIs(std::uint32_t v) { assign(leaveTime_, v, "leaveTime"); }
    /// Shortest time between two LeaveAlls of a port, 1000 to 600000 ms; the longest is 1.5 times that.
    [[nodiscard]] std::uint32_t leaveAllTime() const { return leaveAllTime_; }
    void leaveAllTimeIs(std::uint32_t v) { assign(leaveAllTime_, v, "leaveAllTime"); }
    /// Whether every port repeats its declarations once a second.
    [[nodiscard]] bool periodicEnabled() const { return periodicEnabled_; }
    void periodicEnabledIs(bool v) { assign(periodicEnabled_, v, "periodicEnabled"); }
    /// MRPDUs that one transmit opportunity may send, 1 to 1000; 1 is the strict reading of the standard.
    [[nodiscard]] std::uint32_t pdusPerOpportunity() const { return pdusPerOpportunity_; }
    void pdusPerOpportunityIs(std::uint32_t v) { assign(pdusPerOpportunity_, v, "pdusPerOpportunity"); }
    /// Attributes of one type that one port may register, refused ones included, 1 to 1000000.
    [[nodiscard]] std::uint32_t maxAttributesPerType() const { return maxAttributesPerType_; }
    void maxAttributesPerTypeIs(std::uint32_t v) { assign(maxAttributesPerType_, v, "maxAttributesPerType"); }

    template <class F>
    static void fields(F&& each) {
        using C = MrpConfig;
        each(State::scalar("joinTime", &C::joinTime_, std::uint32_t{10}, std::uint32_t{1000}));
        each(State::scalar("leaveTime", &C::leaveTime_, std::uint32_t{100}, std::uint32_t{60'000}));
        each(State::scalar("leaveAllTime", &C::leaveAllTime_, std::uint32_t{1000}, std::uint32_t{600'000}));
        each(State::scalar("periodicEnabled", &C::periodicEnabled_));
        each(State::scalar("pdusPerOpportunity", &C::pdusPerOpportunity_, std::uint32_t{1}, std::uint32_t{1000}));
        each(State::scalar("maxAttributesPerType", &C::maxAttributesPerType_, std::uint32_t{1}, std::uint32_t{1'000'000}));
    }

private:
    std::uint32_t joinTime_ = 200;
    std::uint32_t leaveTime_ = 600;
    std::uint32_t leaveAllTime_ = 10'000;
    bool periodicEnabled_ = false;
    std::uint32_t pdusPerOpportunity_ = 1000;
    std::uint32_t maxAttributesPerType_ = 4096;
};

}  // namespace Mrp
