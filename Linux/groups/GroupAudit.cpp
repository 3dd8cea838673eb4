#include "Linux/groups/GroupAudit.h"

#include "Runtime/Text.h"

#include <algorithm>

namespace Linux {

std::string describedGroup(const GroupMember& member, const BridgeView& view) {
    const auto port =
        std::ranges::find_if(view.ports, [&](const auto& p) { return p.second == member.port; });
    const std::string name =
        port != view.ports.end() ? port->first : Runtime::concat("interface number ", member.port);
    const std::string vlan = member.group.vid != 0 ? Runtime::concat(" VLAN ", member.group.vid) : "";
    return Runtime::concat("group ", member.group.mac, vlan, " on ", name);
}

std::vector<GroupFinding> groupFindings(const GroupWishes& wished, const BridgeView& view,
                                        const GroupTable& table, const GroupOutcomes& outcomes,
                                        const std::function<bool(EthAddr)>& underway, std::size_t described) {
    std::set<EthAddr> addresses = wished.addresses();
    for (const HeldGroup& held : table.all()) {
        if (held.owner == GroupOwner::us) addresses.insert(held.member.group.mac);
    }
    std::vector<GroupFinding> findings;
    for (const EthAddr mac : addresses) {
        if (underway(mac)) continue;
        const auto wishes = wished.of(mac, view);
        for (const WantedGroup& wish : wishes) {
            if (table.owner(wish.member)) continue;
            findings.push_back({mac, {}, {}});
            if (findings.size() > described) continue;
            findings.back().text = describedGroup(wish.member, view) + ": missing";
            findings.back().why = outcomes.why(mac, failureKey(wish));
        }
        for (const GroupMember& member : difference(wishes, table.of(mac)).surplus) {
            findings.push_back({mac, {}, {}});
            if (findings.size() > described) continue;
            findings.back().text = describedGroup(member, view) + ": ours, but not wanted";
            if (view.vlanFiltering && member.group.vid == 0)
                findings.back().why = "it stays until the bridge does not filter VLANs";
        }
    }
    return findings;
}

}  // namespace Linux
