#include "Linux/bridge/BridgeAgent.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <chrono>
#include <linux/rtnetlink.h>
#include <utility>

namespace Linux {

namespace {

constexpr std::chrono::seconds secondReading{1};
/// After which the states of instances are read again; many ports are read less often, so that most of the
/// time is left for other work.
constexpr std::chrono::seconds treeReading{1};
constexpr int treeReadingShare = 50;

/// A spanning tree for each instance.
bool keepsTrees(const Device& device) {
    return filtersVlans(device) && device.bridgeSettings->multipleSpanningTrees;
}

/// Whether the VLAN table has to be read again.  Its notifications do not tell of what was there before, and
/// come in no promised order with those of devices.
bool concernsVlans(const Device* before, const Device* now) {
    return before == nullptr || now == nullptr || before->name != now->name ||
           before->bridge != now->bridge || filtersVlans(*before) != filtersVlans(*now) ||
           keepsTrees(*before) != keepsTrees(*now);
}

}  // namespace

bool filtersVlans(const Device& device) {
    return device.bridgeSettings && device.bridgeSettings->vlanFiltering;
}

BridgeAgent::BridgeAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests,
                         std::shared_ptr<const Config> config, std::shared_ptr<Bridging::Config> bridging,
                         std::shared_ptr<Bridging::Topology::Config> topology,
                         std::shared_ptr<Stp::Status> stp, Complaint complaint)
    : loop_{loop},
      devices_{devices},
      requests_{requests},
      config_{std::move(config)},
      records_{std::move(bridging), std::move(topology), std::move(stp)},
      complaint_{std::move(complaint)},
      notices_{loop, [this](const nlmsghdr& message) { vlanNotice(message); },
               [this] {
                   vlansStale_ = true;
                   settle_.armIn({});
               }},
      settle_{loop, [this] { settle(); }},
      look_{loop, [this] {
                vlansStale_ = true;
                settle();
            }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
}

std::string BridgeAgent::start(int queueBytes) {
    if (std::string problem = notices_.open({RTNLGRP_BRVLAN}, queueBytes); !problem.empty()) return problem;
    settle();
    return {};
}

const Device* BridgeAgent::bridge() const {
    const Device* device = devices_.find(config_->bridge());
    return device != nullptr && device->bridgeSettings ? device : nullptr;
}

void BridgeAgent::deviceChanged(const Device* before, const Device* now) {
    const Device* bridge = this->bridge();
    const auto concernsUs = [&](const Device* device) {
        return device != nullptr && (device->name == config_->bridge() ||
                                     (bridge != nullptr && device->bridge == bridge->ifindex));
    };
    if (!concernsUs(before) && !concernsUs(now)) return;
    if (concernsVlans(before, now)) vlansStale_ = true;
    settle_.armIn({});
}

void BridgeAgent::vlanNotice(const nlmsghdr& message) {
    const Device* bridge = this->bridge();
    const auto vlans = decodeVlans(message);
    if (bridge == nullptr || !filtersVlans(*bridge) || !vlans) return;
    if (VlanTrees told; keepsTrees(*bridge) && enterTrees(told, bridge->ifindex, message)) {
        // With another instance, its ports have other states.
        vlansStale_ = true;
        settle_.armIn({});
    }
    // One that is not our port yet has its VLANs read when it is.
    const Device* port = devices_.find(vlans->ifindex);
    if (port == nullptr || port->bridge != bridge->ifindex) return;
    enter(vlans_, *vlans);
    settle_.armIn({});
    if (changed_) changed_();
}

void BridgeAgent::settle() {
    BridgeFacts facts;
    std::set<std::string> wrong;
    if (const Device* bridge = this->bridge(); bridge != nullptr) {
        if (filtersVlans(*bridge) && vlansStale_) {
            if (std::string problem = readVlans(); !problem.empty()) wrong.insert(std::move(problem));
        }
        followTrees(*bridge);
        std::map<unsigned, Device> ports;
        for (const unsigned port : devices_.portsOf(bridge->ifindex))
            ports.emplace(port, *devices_.find(port));
        facts = bridgeFacts(*bridge, ports, vlans_, config_->srVlan(), trees_);
    } else {
        trees_.clear();
        look_.cancel();
        wrong.insert(devices_.find(config_->bridge()) != nullptr ? "is not a bridge" : "does not exist");
    }
    complain(std::move(wrong));
    if (changed_) changed_();
    if (onRecord_ == facts) return;
    onRecord_ = facts;
    bringInLine(records_, facts);
}

std::string BridgeAgent::readVlans() {
    notices_.discard();
    const Runtime::Time begin = loop_.now();
    VlanTable table;
    const NetlinkAnswer answer = requests_.dump(
        RTM_GETVLAN, vlanDumpBody(), [&] { table.clear(); },
        [&](const nlmsghdr& message) {
            if (const auto vlans = decodeVlans(message)) enter(table, *vlans);
        });
    const Device& bridge = *this->bridge();
    NetlinkAnswer second;
    VlanTrees trees;
    if (answer && keepsTrees(bridge)) {
        second = requests_.dump(
            RTM_GETVLAN, treeDumpBody(), [&] { trees.clear(); },
            [&](const nlmsghdr& message) { enterTrees(trees, bridge.ifindex, message); });
    }
    if (!answer || !second) {
        settle_.armIn(secondReading);
        return Runtime::concat("cannot read its VLANs: ", (answer ? second : answer).problem());
    }
    if (keepsTrees(bridge)) trees_ = std::move(trees);
    lookTook_ = loop_.now() - begin;
    vlans_ = std::move(table);
    vlansStale_ = false;
    return {};
}

void BridgeAgent::followTrees(const Device& bridge) {
    if (keepsTrees(bridge)) {
        // Whatever else there is to settle meanwhile does not put it off.
        if (!look_.armed())
            look_.armIn(std::max<Runtime::Duration>(treeReading, treeReadingShare * lookTook_));
        return;
    }
    look_.cancel();
    // What the kernel's instances were does not count any more.
    std::erase_if(trees_, [](const auto& tree) { return tree.first.value() != tree.second; });
    if (!filtersVlans(bridge)) return trees_.clear();
    for (const unsigned ifindex : devices_.portsOf(bridge.ifindex)) {
        const auto port = vlans_.find(ifindex);
        if (port == vlans_.end()) continue;
        eachVlan(port->second.blocked, [this](VlanId vlan) { trees_.emplace(vlan, vlan.value()); });
    }
}

void BridgeAgent::complain(std::set<std::string> wrong) {
    for (const std::string& what : wrong) {
        if (complaint_ && !complained_.contains(what))
            complaint_(Runtime::concat("bridge ", config_->bridge(), ' ', what));
    }
    complained_ = std::move(wrong);
}

}  // namespace Linux
