/// The map from priorities to traffic classes that the agent asks of the switch: the SR classes' priorities
/// get the two highest traffic classes in use.
#pragma once

#include "Switch/Ranged.h"

#include <array>
#include <optional>
#include <string>

namespace Msrp {

class MsrpCosToTcMap {
public:
    static constexpr std::size_t priorities = 8;

    /// Sets all eight entries.
    void fillCosToTcMap();
    void cosToTcMapIs(Cos cos, TrafficClass tc);
    void cosToTcMapDel(Cos cos);
    void cosToTcMapDelAll() { map_ = {}; }
    [[nodiscard]] std::optional<TrafficClass> cosToTcMap(Cos cos) const;
    /// "0:0 1:0 2:4"
    [[nodiscard]] std::string text() const;
    bool operator==(const MsrpCosToTcMap&) const = default;

private:
    std::array<std::optional<TrafficClass>, priorities> map_{};
};

}  // namespace Msrp
