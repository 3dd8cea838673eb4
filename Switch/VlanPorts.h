/// Which ports are members of any VLAN, looked at one VLAN at a time: a bridge with thousands of VLANs would
/// take seconds to take in a new configuration if each of them made it look at all.
#pragma once

#include "Switch/Bridging.h"

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace Bridging {

class VlanPorts {
public:
    explicit VlanPorts(std::shared_ptr<const Config> config);

    /// Looks at the VLAN anew; true when a port has become a member of any for the first time, or is none any
    /// more.
    bool refresh(VlanId vlan);
    [[nodiscard]] bool contains(IntfId intf) const { return memberships_.contains(intf); }
    /// In the order of the ports.
    template <class F>
    void each(F&& visit) const {
        for (const auto& [intf, count] : memberships_) visit(intf);
    }

    /// The VLAN that a change of the configuration, or below it, is about; empty when it is about none.
    [[nodiscard]] static std::optional<VlanId> vlanOf(const State::Change& change);

private:
    std::shared_ptr<const Config> config_;
    std::map<VlanId, std::vector<IntfId>> members_;
    std::map<IntfId, std::size_t> memberships_;  ///< in so many VLANs, at least one
};

}  // namespace Bridging
