/// Which port declares which VLAN to its peer (MRP attribute propagation, IEEE 802.1Q 10.3): what is
/// registered, or configured, on one forwarding port is declared on the others.
#pragma once

#include "Switch/VlanSet.h"

#include <cstddef>
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
    [[nodiscard]] bool offers(VlanId vlan) const {
        const std::size_t bit = vlan.value();
        return (registered.test(bit) || fixed.test(bit)) && forwarding.test(bit);
    }
    /// Whether it declares the VLAN, when so many ports offer it, itself included.
    [[nodiscard]] bool declares(VlanId vlan, std::size_t offering) const {
        return forwarding.test(vlan.value()) && offering > (offers(vlan) ? 1U : 0U);
    }
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

}  // namespace Mvrp
