/// Compares what a bridge's multicast table holds with what it shall hold, for people.
#pragma once

#include "Linux/groups/GroupOutcomes.h"
#include "Linux/groups/GroupWishes.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Linux {

/// "group 91:e0:f0:00:fe:01 VLAN 2 on swp1"
std::string describedGroup(const GroupMember& member, const BridgeView& view);

struct GroupFinding {
    EthAddr mac;
    std::string text;  ///< empty: there were others enough
    std::string why;   ///< where it is known
};

/// Every difference but those of addresses that are `underway`; the first `described` with their texts.
std::vector<GroupFinding> groupFindings(const GroupWishes& wished, const BridgeView& view,
                                        const GroupTable& table, const GroupOutcomes& outcomes,
                                        const std::function<bool(EthAddr)>& underway, std::size_t described);

}  // namespace Linux
