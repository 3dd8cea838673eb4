#include "Linux/GroupWanted.h"

#include <algorithm>

namespace Linux {

BridgeView bridgeView(const DeviceTable& devices, std::string_view bridge) {
    BridgeView view;
    const Device* found = devices.find(bridge);
    if (found == nullptr || !found->bridgeSettings) return view;
    view.bridge = found->ifindex;
    view.operational = found->operational;
    view.vlanFiltering = found->bridgeSettings->vlanFiltering;
    view.snooping = found->bridgeSettings->multicastSnooping;
    view.tableSize = found->bridgeSettings->multicastTableSize;
    for (const unsigned port : devices.portsOf(view.bridge))
        view.ports.emplace(devices.find(port)->name, port);
    return view;
}

std::vector<WantedGroup> wantedGroups(const Bridging::Input::Config& config, EthAddr mac,
                                      const BridgeView& view) {
    std::vector<WantedGroup> wanted;
    if (config.fdbConfigPriority() == 0) return wanted;
    config.fdbConfig().each([&](VlanId vlan, const Bridging::Input::FdbConfig& fdb) {
        const auto group = fdb.ethGroup(mac);
        if (!group) return;
        const std::uint16_t vid = view.vlanFiltering ? vlan.value() : std::uint16_t{0};
        const bool listened = hasListeners(*group);
        for (const auto& [intf, member] : group->intf()) {
            const auto port = view.ports.find(intf.name());
            if (member && port != view.ports.end())
                wanted.push_back({vlan, intf, {{mac, vid, {}}, port->second}, group->talkerIntf(), listened});
        }
    });
    return wanted;
}

bool hasListeners(const Bridging::Input::EthGroup& group) {
    return std::ranges::any_of(group.intf(), [&](const auto& member) {
        return member.second && member.first != group.talkerIntf();
    });
}

std::set<EthAddr> wantedAddresses(const Bridging::Input::Config& config) {
    std::set<EthAddr> addresses;
    config.fdbConfig().each([&](VlanId, const Bridging::Input::FdbConfig& fdb) {
        fdb.ethGroup().each([&](EthAddr mac, const Bridging::Input::EthGroup&) { addresses.insert(mac); });
    });
    return addresses;
}

GroupDifference difference(std::span<const WantedGroup> wanted, std::span<const HeldGroup> held) {
    std::set<GroupMember> want;
    for (const WantedGroup& wish : wanted) want.insert(wish.member);
    GroupDifference difference;
    for (const HeldGroup& entry : held) {
        const bool isWanted = want.erase(entry.member) != 0;
        if (!isWanted && entry.owner == GroupOwner::us) difference.surplus.push_back(entry.member);
    }
    difference.missing.assign(want.begin(), want.end());
    return difference;
}

bool isForwardable(EthAddr mac) {
    // Broadcasts go everywhere, and 01:80:c2:00:00:0x goes nowhere, whatever a table says.
    constexpr std::uint64_t linkLocal = 0x0180C2000000;
    return mac.isMulticast() && mac.number() != 0xFFFFFFFFFFFF && (mac.number() & ~0xFULL) != linkLocal;
}

}  // namespace Linux
