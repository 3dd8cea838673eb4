/// What the fence does with frames that come in on a port.
#pragma once

#include "Linux/records/Config.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Linux {

/// Bit n of the masks stands for priority n of a frame's tag.
struct FenceRules {
    std::uint8_t closed = 0;   ///< frames get priority 0
    std::uint8_t streams = 0;  ///< so do those of no stream that is known on the port
    /// Frames to an address for streams that has no group are dropped.
    bool guarded = false;
    /// Frames of MVRP end in this switch.
    bool mvrp = false;
    /// Frames of streams are counted, and perhaps dropped.
    Metering metering = Metering::none;
    auto operator<=>(const FenceRules&) const = default;

    /// "msrpd-fence:23::guarded+police", the name of what carries them out in the kernel; it begins as no
    /// other does.
    [[nodiscard]] std::string name() const;
    /// Nothing for what is not named so.
    static std::optional<FenceRules> parse(std::string_view name);
};

}  // namespace Linux
