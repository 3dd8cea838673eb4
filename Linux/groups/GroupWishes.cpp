#include "Linux/groups/GroupWishes.h"

#include <algorithm>
#include <utility>

namespace Linux {

using Bridging::Input::EthGroup;
using Bridging::Input::FdbConfig;

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

GroupWishes::GroupWishes(std::shared_ptr<const Bridging::Input::Config> config) : config_{std::move(config)} {
    config_->fdbConfig().each([this](VlanId vlan, const FdbConfig& fdb) {
        known_[vlan] = config_->fdbConfig(vlan);
        fdb.ethGroup().each([&](EthAddr mac, const EthGroup&) { look(vlan, mac); });
    });
}

std::optional<std::vector<EthAddr>> GroupWishes::changed(const State::Change& change) {
    if (const auto* group = dynamic_cast<const EthGroup*>(&change.entity)) return {{group->addr()}};
    if (const auto* fdb = dynamic_cast<const FdbConfig*>(&change.entity)) {
        if (const auto* mac = change.key<EthAddr>()) {
            look(fdb->vlanId(), *mac);
            return {{*mac}};
        }
    }
    const auto* vlan = change.key<VlanId>();
    if (vlan == nullptr) return std::nullopt;
    // A VLAN may come and go with groups in it; one that goes can still be looked at.
    std::vector<EthAddr> concerned;
    auto& known = known_[*vlan];
    const auto now = config_->fdbConfig(*vlan);
    for (const auto& fdb : {std::shared_ptr<const FdbConfig>{known.lock()}, now}) {
        if (fdb) fdb->ethGroup().each([&](EthAddr mac, const EthGroup&) { concerned.push_back(mac); });
    }
    known = now;
    for (const EthAddr mac : concerned) look(*vlan, mac);
    return concerned;
}

void GroupWishes::look(VlanId vlan, EthAddr mac) {
    auto& vlans = vlans_[mac];
    const auto at = std::ranges::lower_bound(vlans, vlan);
    const bool listed = at != vlans.end() && *at == vlan;
    const bool there = has(vlan, mac);
    if (there && !listed) vlans.insert(at, vlan);
    if (!there && listed) vlans.erase(at);
    if (vlans.empty()) vlans_.erase(mac);
}

bool GroupWishes::has(VlanId vlan, EthAddr mac) const {
    const auto fdb = config_->fdbConfig(vlan);
    return fdb && fdb->ethGroup(mac);
}

std::vector<WantedGroup> GroupWishes::of(EthAddr mac, const BridgeView& view) const {
    std::vector<WantedGroup> wanted;
    const auto vlans = vlans_.find(mac);
    if (config_->fdbConfigPriority() == 0 || vlans == vlans_.end()) return wanted;
    for (const VlanId vlan : vlans->second) {
        const auto fdb = config_->fdbConfig(vlan);
        const auto group = fdb ? fdb->ethGroup(mac) : nullptr;
        if (!group) continue;
        const std::uint16_t vid = view.vlanFiltering ? vlan.value() : std::uint16_t{0};
        const bool listened = hasListeners(*group);
        for (const auto& [intf, member] : group->intf()) {
            const auto port = view.ports.find(intf.name());
            if (member && port != view.ports.end())
                wanted.push_back({vlan, intf, {{mac, vid, {}}, port->second}, group->talkerIntf(), listened});
        }
    }
    return wanted;
}

std::set<EthAddr> GroupWishes::addresses() const {
    std::set<EthAddr> addresses;
    for (const auto& [mac, vlans] : vlans_) addresses.insert(addresses.end(), mac);
    return addresses;
}

bool hasListeners(const EthGroup& group) {
    return std::ranges::any_of(group.intf(), [&](const auto& member) {
        return member.second && member.first != group.talkerIntf();
    });
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
