#include "Msrp/InputFollowers.h"

#include "Msrp/MsrpSm.h"

#include <algorithm>

namespace Msrp {

namespace {

/// What a change of a port's field means.
struct Reaction {
    std::string_view field;
    void (MsrpSm::*handle)(IntfId intf);
};

using Interface::EthPhyIntfStatus;
constexpr Reaction phyReactions[] = {
    {State::fieldName<EthPhyIntfStatus>("linkStatus"), &MsrpSm::handleLinkStatus},
    {State::fieldName<EthPhyIntfStatus>("speedEnum"), &MsrpSm::handleSpeed},
};

using Bridging::SwitchIntfConfig;
constexpr Reaction switchIntfReactions[] = {
    {State::fieldName<SwitchIntfConfig>("switchportMode"), &MsrpSm::handleNativeVlan},
    {State::fieldName<SwitchIntfConfig>("nativeVlan"), &MsrpSm::handleNativeVlan},
};
static_assert(State::coversFields<SwitchIntfConfig>(switchIntfReactions));

template <class Reactions>
void apply(const Reactions& reactions, MsrpSm& sm, IntfId intf, std::string_view field) {
    const auto found = std::ranges::find(reactions, field, &Reaction::field);
    if (found != std::end(reactions)) (sm.*found->handle)(intf);
}

}  // namespace

void InputFollowers::start() {
    const MsrpSm::Inputs& inputs = sm_.inputs();
    const auto follow = [this](const auto& record, State::ChangeHandler handler) {
        if (record) whole_.push_back(record->react(std::move(handler)));
    };
    follow(inputs.cliConfig, [this](const State::Change& change) { sm_.handleCliConfig(change); });
    follow(inputs.config, [this](const State::Change& change) {
        if (const auto* intf = change.key<IntfId>()) sm_.handleIntfEnable(*intf);
    });
    follow(inputs.ethPhyIntfStatusDir, [this](const State::Change& change) {
        const auto* intf = change.key<IntfId>();
        if (intf == nullptr) return;
        if (sm_.inputs().ethPhyIntfStatusDir->intfStatus(*intf)) {
            intfStatusIs(*intf);
            sm_.followIntf(*intf);
        } else {
            intf_.erase(*intf);
        }
        sm_.handleIntfEnable(*intf);
    });
    follow(inputs.brConfig, [this](const State::Change& change) {
        if (const auto* intf = change.key<IntfId>()) {
            switchIntfConfigIs(*intf);
            sm_.handleSwitchIntfConfig(*intf);
        }
        if (const auto* vlan = change.key<VlanId>()) sm_.handleVlanConfig(*vlan);
    });
    follow(inputs.qosStatus, [this](const State::Change&) { sm_.doUpdateShapeRate(); });
    follow(inputs.stpStatus, [this](const State::Change& change) {
        if (change.field == State::fieldName<Stp::Status>("mode")) sm_.handleStpMode();
    });
    follow(inputs.topoLib, [this](const State::Change& change) {
        const auto* name = change.key<std::string>();
        if (name == nullptr) return;
        if (sm_.inputs().topoLib->topo(*name)) {
            topoIs(*name);
        } else {
            topoDel(*name);
        }
    });
    if (inputs.time) {
        whole_.push_back(inputs.time->watch([this](const State::Change& change) {
            const auto* port = dynamic_cast<const Switch::PortTime*>(&change.entity);
            const auto* intf = change.key<IntfId>();
            if (port == nullptr && intf == nullptr) return sm_.handleIntfEnable();
            if (port == nullptr || change.field == Switch::PortTime::capableField)
                sm_.handleTime(port != nullptr ? port->intfId() : *intf);
        }));
    }
    follow(inputs.refusals, [this](const State::Change& change) { sm_.handleRefusal(change); });

    // What is there already does not announce itself.
    if (inputs.ethPhyIntfStatusDir) {
        inputs.ethPhyIntfStatusDir->intfStatus().each(
            [this](IntfId intf, const auto&) { intfStatusIs(intf); });
    }
    if (inputs.brConfig) {
        inputs.brConfig->switchIntfConfig().each(
            [this](IntfId intf, const auto&) { switchIntfConfigIs(intf); });
    }
    if (inputs.topoLib) {
        inputs.topoLib->topo().each([this](const std::string& name, const auto&) { topoIs(name); });
    }
}

void InputFollowers::stop() {
    whole_.clear();
    intf_.clear();
    switchIntf_.clear();
    topo_.clear();
}

void InputFollowers::hasNotificationActiveIs(bool active) {
    for (State::Reactor& reactor : whole_) reactor.hasNotificationActiveIs(active);
    for (auto& [intf, reactor] : intf_) reactor.hasNotificationActiveIs(active);
    for (auto& [intf, reactor] : switchIntf_) reactor.hasNotificationActiveIs(active);
    for (auto& [name, topo] : topo_) {
        topo.reactor.hasNotificationActiveIs(active);
        for (auto& [intf, port] : topo.port) port.reactor.hasNotificationActiveIs(active);
    }
}

void InputFollowers::intfStatusIs(IntfId intf) {
    intf_[intf] = sm_.inputs().ethPhyIntfStatusDir->intfStatus(intf)->react(
        [this, intf](const State::Change& change) { apply(phyReactions, sm_, intf, change.field); });
}

void InputFollowers::switchIntfConfigIs(IntfId intf) {
    const auto record = sm_.inputs().brConfig->switchIntfConfig(intf);
    if (!record) {
        switchIntf_.erase(intf);
        return;
    }
    switchIntf_[intf] = record->react(
        [this, intf](const State::Change& change) { apply(switchIntfReactions, sm_, intf, change.field); });
}

void InputFollowers::topoIs(const std::string& name) {
    const auto record = sm_.inputs().topoLib->topo(name);
    Topo& follower = topo_[name];
    follower.topo = record;
    follower.reactor = record->react([this, name](const State::Change& change) {
        const auto* intf = change.key<IntfId>();
        const auto held = topo_.find(name);
        if (intf == nullptr || held == topo_.end()) return;
        if (held->second.topo->topoPort(*intf)) {
            topoPortIs(name, *intf);
        } else {
            topoPortDel(name, *intf);
        }
    });
    record->topoPort().each([&](IntfId intf, const auto&) { topoPortIs(name, intf); });
}

void InputFollowers::topoPortIs(const std::string& name, IntfId intf) {
    Topo& topo = topo_[name];
    const auto record = topo.topo->topoPort(intf);
    TopoPort& follower = topo.port[intf];
    follower.port = record;
    follower.reactor = record->react([this, name, intf](const State::Change& change) {
        if (change.field == State::fieldName<Bridging::Topology::TopoPort>("state"))
            sm_.handlePortState(name, intf);
        if (const auto* vlan = change.key<VlanId>()) sm_.handleVlanPortConfig(name, intf, *vlan);
    });
}

void InputFollowers::topoDel(const std::string& name) {
    const auto at = topo_.find(name);
    if (at == topo_.end()) return;
    sm_.trace("Closing topology ", name);
    while (!topo_[name].port.empty()) topoPortDel(name, topo_[name].port.begin()->first);
    topo_.erase(name);
}

void InputFollowers::topoPortDel(const std::string& name, IntfId intf) {
    const auto topo = topo_.find(name);
    if (topo == topo_.end()) return;
    const auto follower = topo->second.port.extract(intf);
    if (!follower.empty()) sm_.closeTopoPort(name, *follower.mapped().port);
}

const Bridging::Topology::TopoPort* InputFollowers::topoPort(const std::string& name, IntfId intf) const {
    const auto topo = topo_.find(name);
    if (topo == topo_.end()) return nullptr;
    const auto port = topo->second.port.find(intf);
    return port == topo->second.port.end() ? nullptr : port->second.port.get();
}

}  // namespace Msrp
