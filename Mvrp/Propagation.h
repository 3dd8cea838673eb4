/// Which port declares which VLAN to its peer (MRP attribute propagation, IEEE 802.1Q 10.3): what is
/// registered, or configured, on one forwarding port is declared on the others.
#pragma once

#include "Switch/VlanSet.h"

#include <cstddef>
#include <iterator>
#include <map>

namespace Mvrp {

/// VLANs of one port.
struct PortVlans {
    VlanSet registered;  ///< its peer declares them
    VlanSet fixed;       ///< it is a member by configuration, whatever the peer says (8.8.2)
    VlanSet forwarding;  ///< in whose spanning tree the port forwards; empty for a port without the protocol
    bool operator==(const PortVlans&) const = default;

    /// What the others may declare because of this port.
    [[nodiscard]] VlanSet offered() const { return (registered | fixed) & forwarding; }
};

/// What each port declares.
template <class Key>
std::map<Key, VlanSet> declarations(const std::map<Key, PortVlans>& ports) {
    VlanSet once;   // offered by one port at least
    VlanSet twice;  // by two: then by another one than any that is looked at
    for (const auto& [key, port] : ports) {
        const VlanSet offered = port.offered();
        twice |= once & offered;
        once |= offered;
    }
    std::map<Key, VlanSet> out;
    for (const auto& [key, port] : ports)
        out.emplace_hint(out.end(), key, (twice | (once & ~port.offered())) & port.forwarding);
    return out;
}

/// Whether one port declares one VLAN: the same for a single one.
template <class Key>
bool declares(const std::map<Key, PortVlans>& ports, const Key& key, VlanId vlan) {
    const auto at = ports.find(key);
    if (at == ports.end() || !at->second.forwarding.test(vlan.value())) return false;
    for (auto other = ports.begin(); other != ports.end(); ++other) {
        const PortVlans& port = other->second;
        const bool offers = port.registered.test(vlan.value()) || port.fixed.test(vlan.value());
        if (other != at && offers && port.forwarding.test(vlan.value())) return true;
    }
    return false;
}

}  // namespace Mvrp
