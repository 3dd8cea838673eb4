/// Behind which port the talker of each stream is, as the record of groups has it.
#pragma once

#include "Switch/BridgingInput.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"
#include "Switch/Ranged.h"

#include <compare>
#include <functional>
#include <map>
#include <memory>
#include <set>

namespace Linux {

/// What the frames of one stream are known by.
struct StreamAddress {
    VlanId vlan{1};
    EthAddr mac;
    auto operator<=>(const StreamAddress&) const = default;
};

class TalkerPlaces {
public:
    /// The frames of a stream may come in on that port, or do so no more.
    using Changed = std::function<void(const StreamAddress& stream, IntfId port, bool there)>;

    TalkerPlaces(std::shared_ptr<const Bridging::Input::Config> groups, Changed changed);

    /// Begins to follow the record, which it reads first.
    void start();
    /// Those whose frames come in there.
    [[nodiscard]] const std::set<StreamAddress>& behind(IntfId port) const;

private:
    void recordChanged(const State::Change& change);
    void lookAtVlan(VlanId vlan);
    void look(const StreamAddress& stream);

    const std::shared_ptr<const Bridging::Input::Config> groups_;
    const Changed changed_;
    std::map<StreamAddress, IntfId> places_;
    std::map<IntfId, std::set<StreamAddress>> byPort_;
    State::Reactor reactor_;
};

}  // namespace Linux
