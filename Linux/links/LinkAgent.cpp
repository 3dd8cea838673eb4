#include "Linux/links/LinkAgent.h"

#include "Linux/links/Ethtool.h"

#include <algorithm>
#include <utility>

namespace Linux {

using Interface::LinkStatus;
using Interface::Speed;

LinkAgent::LinkAgent(DeviceTable& devices, std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status,
                     std::shared_ptr<Interface::EthIntfStatusDir> names, Placed placed)
    : devices_{devices}, status_{std::move(status)}, names_{std::move(names)}, placed_{std::move(placed)} {
    devices.watch([this](const Device* before, const Device* now) {
        if (before != nullptr && (now == nullptr || now->name != before->name)) publish(before->name);
        if (now != nullptr) publish(now->name);
    });
    devices.modesOf([this](const Device& device) {
        return std::ranges::any_of(followed_, [&](const auto& f) { return f.first.name() == device.name; });
    });
}

void LinkAgent::publish(const std::string& name) {
    // Names of strangers are not made into identifiers, which are kept for ever.
    for (const auto& [intf, ifindex] : followed_) {
        if (intf.name() == name) return publish(intf);
    }
}

void LinkAgent::publish(IntfId intf) {
    const auto followed = followed_.find(intf);
    if (followed == followed_.end()) return;
    const Device* found = devices_.find(intf.name());
    const unsigned before = std::exchange(followed->second, found != nullptr ? found->ifindex : 0);
    // Another device under the same name: the old one's link ended with it.
    if (found == nullptr || (before != 0 && before != found->ifindex)) publishAbsent(intf);
    if (found == nullptr) return;

    const Device device = *found;  // whoever is told below may ask for more
    const auto record = status_->intfStatusIs(intf);
    // Down is told first and up last: a record whose link is up is right in everything else.
    if (!device.operational) record->linkStatusIs(LinkStatus::linkDown);
    if (placed_) placed_(intf, {device.ifindex, device.mac, device.mtu});
    if (names_) names_->intfIs(intf, true);
    record->macAddrIs(device.mac);
    record->speedEnumIs(speed(intf, device));
    if (device.operational) record->linkStatusIs(LinkStatus::linkUp);
}

void LinkAgent::publishAbsent(IntfId intf) {
    const auto record = status_->intfStatusIs(intf);
    record->linkStatusIs(LinkStatus::linkDown);
    record->speedEnumIs(speed(intf, {}));
    if (names_) names_->intfDel(intf);
    if (placed_) placed_(intf, {});
}

Speed LinkAgent::speed(IntfId intf, const Device& device) const {
    if (const auto given = configuredSpeed_.find(intf); given != configuredSpeed_.end()) return given->second;
    // On a half-duplex link nobody can promise a stream its share.
    return device.mode.halfDuplex ? Speed::speedUnknown
                                  : Interface::namedSpeed(device.mode.megabitsPerSecond);
}

void LinkAgent::followIs(IntfId intf) {
    followed_.try_emplace(intf, 0);
    if (const Device* device = devices_.find(intf.name())) devices_.learnMode(device->ifindex);
    publish(intf);
}

void LinkAgent::followDel(IntfId intf) {
    if (followed_.erase(intf) == 0) return;
    publishAbsent(intf);
    status_->intfStatusDel(intf);
}

void LinkAgent::configuredSpeedIs(IntfId intf, Speed speed) {
    if (speed == Speed::speedUnknown) {
        configuredSpeed_.erase(intf);
    } else {
        configuredSpeed_[intf] = speed;
    }
    publish(intf);
}

}  // namespace Linux
