#include "Msrp/bandwidth/CosToTcMap.h"

namespace Msrp {

void MsrpCosToTcMap::fillCosToTcMap() {
    constexpr std::array<std::uint8_t, priorities> trafficClass{0, 0, 4, 5, 1, 1, 2, 3};
    for (std::uint8_t cos = 0; cos < priorities; ++cos) map_[cos] = TrafficClass{trafficClass[cos]};
}

void MsrpCosToTcMap::cosToTcMapIs(Cos cos, TrafficClass tc) {
    if (cos.value() < priorities) map_[cos.value()] = tc;
}

void MsrpCosToTcMap::cosToTcMapDel(Cos cos) {
    if (cos.value() < priorities) map_[cos.value()].reset();
}

std::optional<TrafficClass> MsrpCosToTcMap::cosToTcMap(Cos cos) const {
    return cos.value() < priorities ? map_[cos.value()] : std::nullopt;
}

std::string MsrpCosToTcMap::text() const {
    std::string out;
    for (std::size_t cos = 0; cos < priorities; ++cos) {
        if (!map_[cos]) continue;
        if (!out.empty()) out += ' ';
        out += std::to_string(cos) + ':' + map_[cos]->text();
    }
    return out;
}

}  // namespace Msrp
