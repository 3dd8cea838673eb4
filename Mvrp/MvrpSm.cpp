#include "Mvrp/MvrpSm.h"

#include "Mrp/PeriodicSm.h"
#include "Mvrp/Application.h"
#include "Mvrp/MvrpEvents.h"
#include "Runtime/BigEndian.h"
#include "Switch/VlanPorts.h"

#include <algorithm>
#include <utility>

namespace Mvrp {

namespace {

using Bridging::Topology::PortState;

VlanSet allVlans() {
    VlanSet all;
    all.set();
    all.reset(0);
    return all;
}

}  // namespace

MvrpSm::MvrpSm(Inputs inputs, Runtime::Loop& loop, const Runtime::SystemLog& systemLog)
    : MrpLib{Mvrp::application()},
      inputs_{std::move(inputs)},
      systemLog_{systemLog},
      refresh_{loop, [this] { refresh(); }},
      publish_{loop, [this] { publish(); }} {}

MvrpSm::~MvrpSm() = default;

void MvrpSm::begin() {
    running_ = true;
    const auto follow = [this](const auto& record, auto&& note) {
        reactors_.push_back(record->watch([this, note](const State::Change& change) {
            note(change);
            refreshSoon();
        }));
    };
    const auto nothing = [](const State::Change&) {};
    const auto topology = [this](const State::Change&) { topologyStale_ = true; };
    follow(inputs_.config, nothing);
    follow(inputs_.links, nothing);
    follow(inputs_.members, nothing);
    follow(inputs_.stp, topology);
    follow(inputs_.topology, topology);
    follow(inputs_.bridging, [this](const State::Change& change) {
        if (const auto vlan = Bridging::VlanPorts::vlanOf(change)) {
            stale_.set(vlan->value());
        } else {
            topologyStale_ = true;  // another native VLAN may have another tree
        }
    });
    refresh();
}

void MvrpSm::end() {
    running_ = false;
    reactors_.clear();
    refresh_.cancel();
    while (!ports_.empty()) stopPort(ports_.begin()->first);
    publish();
    inputs_.requests->runningIs(false);
}

// --- What the records say ------------------------------------------------------------------------

bool MvrpSm::mayRun(IntfId intf) const {
    const auto link = inputs_.links->intfStatus(intf);
    return inputs_.config->intfEnable().get(intf, false) && link &&
           link->linkStatus() == Interface::LinkStatus::linkUp;
}

VlanSet MvrpSm::allowed(IntfId intf) const {
    if (const VlanSet* own = inputs_.config->allowed().find(intf)) return *own;
    VlanSet streams;
    streams.set(inputs_.streamVlan(intf).value());
    return streams;
}

void MvrpSm::refreshForwarding() {
    if (!std::exchange(topologyStale_, false)) return;
    // VLANs without a tree of their own go by the common one (11.2.1).
    VlanSet common = allVlans();
    std::map<std::string, VlanSet> trees;
    for (const auto& [vlan, tree] : inputs_.topology->vlanTopology()) {
        trees[tree].set(vlan.value());
        common.reset(vlan.value());
    }
    for (auto& [intf, vlans] : vlans_) {
        const IntfId port = intf;
        const auto forwards = [&](const std::string& tree) {
            const auto topo = inputs_.topology->topoConfig(tree);
            const auto state = topo ? topo->topoPortConfig(port) : nullptr;
            return state && state->state() == PortState::forwarding;
        };
        vlans.forwarding.reset();
        if (forwards(Stp::baseTopology(*inputs_.stp, inputs_.bridging.get(), port)))
            vlans.forwarding = common;
        for (const auto& [tree, carried] : trees) {
            if (forwards(tree)) vlans.forwarding |= carried;
        }
    }
}

void MvrpSm::refreshSoon() {
    if (running_ && !refresh_.armed()) refresh_.armIn({});
}

void MvrpSm::refresh() {
    const auto& configured = inputs_.config->intfEnable();
    inputs_.requests->runningIs(
        std::any_of(configured.begin(), configured.end(), [](const auto& entry) { return entry.second; }));
    std::set<IntfId> gone;
    for (const auto& [intf, port] : ports_) {
        if (!mayRun(intf)) gone.insert(intf);
    }
    for (const IntfId intf : gone) stopPort(intf);
    for (const auto& [intf, enabled] : configured) {
        if (mayRun(intf) && !ports_.contains(intf)) startPort(intf);
    }
    std::set<IntfId> closed;
    for (const auto& [intf, vlans] : vlans_) {
        if (vlans.forwarding.none()) closed.insert(intf);
    }
    refreshFixed();
    refreshForwarding();
    std::set<IntfId> opened;
    for (auto& [intf, port] : ports_) {
        if (closed.contains(intf) && vlans_[intf].forwarding.any()) opened.insert(intf);
        allowedChanged(intf, port, allowed(intf));
    }
    declareAll(opened);
}

void MvrpSm::refreshFixed() {
    for (auto& [intf, port] : ports_) {
        const auto record = inputs_.members->port(intf);
        const VlanSet given = record ? record->member() : VlanSet{};
        stale_ |= given ^ std::exchange(port.given, given);
    }
    eachVlan(std::exchange(stale_, {}), [this](VlanId vlan) {
        const auto config = inputs_.bridging->vlanConfig(vlan);
        for (auto& [intf, port] : ports_) {
            const bool fixed = config && config->intf(intf) && !port.given.test(vlan.value());
            if (fixed == vlans_[intf].fixed.test(vlan.value())) continue;
            vlans_[intf].fixed.set(vlan.value(), fixed);
            publishSoon(intf);
        }
    });
}

void MvrpSm::startPort(IntfId intf) {
    ports_[intf].allowed = allowed(intf);
    vlans_[intf] = {};
    stale_ = allVlans();
    topologyStale_ = true;
    mrpInterfaceEnable(intf);
    // What was registered before is asked for anew.
    if (Mrp::PeriodicSm* periodic = periodicSm()) periodic->transmitAllLeaveAll(intf);
    publishSoon(intf);
}

void MvrpSm::stopPort(IntfId intf) {
    eachVlan(ports_[intf].declared, [&](VlanId vlan) { declare(intf, vlan, Mrp::requestWithdraw); });
    ports_.erase(intf);
    vlans_.erase(intf);
    mrpInterfaceDisable(intf);
    publishSoon(intf);
    if (running_) refreshSoon();
}

void MvrpSm::allowedChanged(IntfId intf, Port& port, const VlanSet& now) {
    const VlanSet before = std::exchange(port.allowed, now);
    if (before == now) return;
    // The peer is made to declare anew what it may have no more, and is then refused.
    eachVlan(vlans_[intf].registered & ~now, [&](VlanId vlan) {
        vlans_[intf].registered.reset(vlan.value());
        mrpCleanUpIntfDatabaseAttribute(intf, typeVid, vlan.value());
    });
    if ((port.refused & now).any()) mrpPortOpened(intf);
    port.refused &= ~now;
    publishSoon(intf);
}

// --- What peers say ------------------------------------------------------------------------------

VlanId MvrpSm::incomingVlan() const {
    return VlanId{Runtime::bigEndian(std::span{incoming(typeVid).value}.first(2))};
}

std::uint8_t MvrpSm::mrpJoinIndication(const Mrp::MrpParameters& params) {
    const VlanId vlan = incomingVlan();
    const auto at = ports_.find(params.intf);
    if (at == ports_.end()) return 1;
    Port& port = at->second;
    PortVlans& vlans = vlans_[params.intf];
    publishSoon(params.intf);
    if (!port.allowed.test(vlan.value())) {
        if (!port.refused.test(vlan.value())) {
            systemLog_.log(MVRP_REFUSED, vlan, params.intf);
            inputs_.status->intfStatusIs(params.intf)->failedRegistrationsInc();
        }
        port.refused.set(vlan.value());
        return 1;
    }
    if (!vlans.registered.test(vlan.value())) systemLog_.log(MVRP_JOIN, vlan, params.intf);
    vlans.registered.set(vlan.value());
    const bool isNew = incoming(typeVid).isNew;
    // Where the peer's network has changed, stations are found behind other ports than they were (11.2.5).
    if (isNew) flush(params.intf, vlan);
    // What a blocked port hears goes no further: two links side by side would pass it on for ever.
    declareOne(vlan, isNew && vlans.forwarding.test(vlan.value()) ? params.intf : IntfId{});
    return 0;
}

void MvrpSm::mrpLeaveIndication(const Mrp::MrpParameters& params) {
    const VlanId vlan = incomingVlan();
    const auto at = vlans_.find(params.intf);
    if (at == vlans_.end()) return;
    systemLog_.log(MVRP_LV, vlan, params.intf);
    at->second.registered.reset(vlan.value());
    publishSoon(params.intf);
    declareOne(vlan, IntfId{});
}

// --- What is said to peers -----------------------------------------------------------------------

void MvrpSm::declareAll(const std::set<IntfId>& opened) {
    for (const auto& port : declarations(vlans_)) {
        const IntfId intf = port.first;
        const VlanSet& wanted = port.second;
        VlanSet& declared = ports_[intf].declared;
        if (declared == wanted) continue;
        // A port that begins to forward has another part of the network behind it.
        const std::uint8_t join = opened.contains(intf) ? Mrp::requestNew : Mrp::requestDeclare;
        eachVlan(declared & ~wanted, [&](VlanId vlan) { declare(intf, vlan, Mrp::requestWithdraw); });
        eachVlan(wanted & ~declared, [&](VlanId vlan) {
            declare(intf, vlan, join);
            if (join == Mrp::requestNew) flush(intf, vlan);
        });
        declared = wanted;
        publishSoon(intf);
    }
}

void MvrpSm::declareOne(VlanId vlan, IntfId from) {
    std::size_t offering = 0;
    for (const auto& [intf, vlans] : vlans_) offering += vlans.offers(vlan) ? 1U : 0U;
    for (auto& [intf, port] : ports_) {
        const bool wanted = vlans_[intf].declares(vlan, offering);
        const bool declared = port.declared.test(vlan.value());
        const bool again = wanted && from && from != intf;
        if (again) {
            declare(intf, vlan, Mrp::requestNew);
            flush(intf, vlan);
        } else if (wanted != declared) {
            declare(intf, vlan, wanted ? Mrp::requestDeclare : Mrp::requestWithdraw);
        } else {
            continue;
        }
        port.declared.set(vlan.value(), wanted);
        publishSoon(intf);
    }
}

void MvrpSm::declare(IntfId intf, VlanId vlan, std::uint8_t request) {
    Runtime::bigEndianIs(std::span{outgoing(typeVid).value}.first(2), vlan.value());
    mrpSpend(1);
    mrpOutIntfQueueEnq(intf);
    mrpSendAttribute({.intf = intf, .attributeType = typeVid, .request = request});
}

// --- What is told ----------------------------------------------------------------------------------

void MvrpSm::publishSoon(IntfId intf) {
    unpublished_.insert(intf);
    if (!publish_.armed()) publish_.armIn({});
}

void MvrpSm::publish() {
    for (const IntfId intf : std::exchange(unpublished_, {})) {
        const auto at = ports_.find(intf);
        if (at == ports_.end()) {
            inputs_.status->intfStatusDel(intf);
            inputs_.requests->portDel(intf);
            continue;
        }
        const PortVlans& vlans = vlans_[intf];
        const auto status = inputs_.status->intfStatusIs(intf);
        status->registeredIs(vlans.registered);
        status->refusedIs(at->second.refused);
        status->declaredIs(at->second.declared);
        status->fixedIs(vlans.fixed);
        inputs_.requests->portIs(intf)->memberIs(vlans.registered & ~vlans.fixed);
    }
}

}  // namespace Mvrp
