#include "Linux/GroupAudit.h"

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

std::vector<GroupFinding> groupFindings(const Bridging::Input::Config& config, const BridgeView& view,
                                        const GroupTable& table, const GroupLedger& ledger,
                                        const std::function<bool(EthAddr)>& underway) {
    std::set<EthAddr> addresses = wantedAddresses(config);
    for (const HeldGroup& held : table.all()) {
        if (held.owner == GroupOwner::us) addresses.insert(held.member.group.mac);
    }
    std::vector<GroupFinding> findings;
    for (const EthAddr mac : addresses) {
        if (underway(mac)) continue;
        const auto wishes = wantedGroups(config, mac, view);
        for (const WantedGroup& wish : wishes) {
            if (table.owner(wish.member)) continue;
            findings.push_back(
                {mac, describedGroup(wish.member, view) + ": missing", ledger.why(mac, failureKey(wish))});
        }
        for (const GroupMember& member : difference(wishes, table.of(mac)).surplus) {
            const bool stuck = view.vlanFiltering && member.group.vid == 0;
            findings.push_back({mac, describedGroup(member, view) + ": ours, but not wanted",
                                stuck ? "it stays until the bridge does not filter VLANs" : ""});
        }
    }
    return findings;
}

}  // namespace Linux
