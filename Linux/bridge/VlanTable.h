/// The VLANs of every port of a bridge, as the kernel's messages give them one after the other.
#pragma once

#include "Linux/bridge/VlanMessage.h"
#include "Switch/Ranged.h"

#include <bitset>
#include <map>
#include <optional>

namespace Linux {

/// One bit for each VLAN, at its number.  A trunk may well have all of them.
using VlanSet = std::bitset<VlanId::max + 1>;

struct PortVlans {
    VlanSet member;              ///< those whose frames pass
    VlanSet tagged;              ///< those of them whose frames leave with a tag
    std::optional<VlanId> pvid;  ///< the one of frames without a tag
    bool operator==(const PortVlans&) const = default;
};

/// By the port's index.
using VlanTable = std::map<unsigned, PortVlans>;

void enter(VlanTable& table, const VlanMessage& message);

}  // namespace Linux
