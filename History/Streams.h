/// What one stream has at a moment, and what has happened between two such moments.  No more than values: who
/// follows the records asks.
#pragma once

#include "History/Event.h"
#include "Msrp/types/Status.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace History {

/// What a port whose listener asks for a stream has of it.
enum class Holding : std::uint8_t { asks, reserved, failed, waits };
constexpr auto holdingNames = std::to_array<State::EnumName<Holding>>({{Holding::asks, "asks"},
                                                                       {Holding::reserved, "reserved"},
                                                                       {Holding::failed, "failed"},
                                                                       {Holding::waits, "waits"}});
constexpr const auto& enumNames(Holding) { return holdingNames; }

struct PortState {
    IntfId intf;
    Holding holding = Holding::asks;
    std::uint8_t code = 0;  ///< while it fails or waits
    bool operator==(const PortState&) const = default;
};

struct StreamState {
    IntfId talker{};  ///< its port; none: there is none
    bool failed = false;
    bool waits = false;  ///< it fails for want of something that others may release here
    std::uint8_t code = 0;
    std::uint64_t bridge = 0;
    Msrp::SrClassId srClass{};
    std::uint32_t kbps = 0;
    EthAddr destination{};
    std::uint16_t vlan = 0;
    std::vector<PortState> ports{};  ///< those that ask, in their order

    [[nodiscard]] bool empty() const { return !talker && ports.empty(); }
    bool operator==(const StreamState&) const = default;
};
[[nodiscard]] StreamState stateOf(const Msrp::StreamData& stream);

/// Why a declaration has gone from a port, by what the port is now; `port` may be null.
[[nodiscard]] Reason reasonOf(const Msrp::IntfStatus* port, Msrp::SrClassId srClass);

/// Appends the events that lead from one state of a stream to another.  `why` says why a talker that is gone
/// has left, and of a port why its listener has.
using Why = std::function<Reason(IntfId intf, Msrp::SrClassId srClass)>;
void appendChanges(std::uint64_t stream, const StreamState& before, const StreamState& now, const Why& why,
                   std::vector<Event>& out);

/// "swp2 reserved, swp3 failed (1)"; empty when no port asks.
[[nodiscard]] std::string portsText(const StreamState& state);

}  // namespace History
