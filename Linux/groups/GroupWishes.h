/// What a bridge's multicast table shall hold, and what has to be done for that.
#pragma once

#include "Linux/groups/GroupTable.h"
#include "Linux/links/DeviceTable.h"
#include "Switch/BridgingInput.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Linux {

/// The bridge and its ports, as far as they decide what its table shall hold.
struct BridgeView {
    unsigned bridge = 0;  ///< the kernel's index; 0: it does not exist
    bool operational = false;
    bool vlanFiltering = false;
    bool snooping = false;
    std::uint32_t tableSize = 0;            ///< groups; 0: not known
    std::map<std::string, unsigned> ports;  ///< index by name
    bool operator==(const BridgeView&) const = default;
};
BridgeView bridgeView(const DeviceTable& devices, std::string_view bridge);

/// One wish of the record, and the entry that fulfils it.  On a bridge that does not filter VLANs, several
/// may be fulfilled by one.
struct WantedGroup {
    VlanId vlan;
    IntfId intf;
    GroupMember member;
    IntfId talker;          ///< the port of the group's talker; none: not known
    bool listened = false;  ///< somebody wants to hear the group, on this port or on another
};
/// Whether a member other than the talker's port is in the group.
bool hasListeners(const Bridging::Input::EthGroup& group);

/// What the record wants, found by address whatever the number of VLANs.
class GroupWishes {
public:
    explicit GroupWishes(std::shared_ptr<const Bridging::Input::Config> config);

    /// Takes in a change of the record, and tells the addresses that it concerns.  No value (unlike an empty
    /// list): it may concern any.
    std::optional<std::vector<EthAddr>> changed(const State::Change& change);
    /// Wishes for that address on ports that the bridge has, by VLAN and port.
    [[nodiscard]] std::vector<WantedGroup> of(EthAddr mac, const BridgeView& view) const;
    [[nodiscard]] bool has(VlanId vlan, EthAddr mac) const;
    /// Addresses for which there are wishes.
    [[nodiscard]] std::set<EthAddr> addresses() const;

private:
    /// Notes whether that VLAN has a group of that address.
    void look(VlanId vlan, EthAddr mac);

    const std::shared_ptr<const Bridging::Input::Config> config_;
    std::map<VlanId, std::weak_ptr<const Bridging::Input::FdbConfig>> known_;
    std::map<EthAddr, std::vector<VlanId>> vlans_;  ///< in ascending order
};

struct GroupDifference {
    std::vector<GroupMember> missing;  ///< wanted, and nobody's is there
    std::vector<GroupMember> surplus;  ///< ours, and not wanted
};
/// Of one address, or of all.
GroupDifference difference(std::span<const WantedGroup> wanted, std::span<const HeldGroup> held);

/// Whether a bridge can be asked to forward that address to chosen ports.
bool isForwardable(EthAddr mac);

}  // namespace Linux
