#include "Linux/LinkAgent.h"

#include "Linux/LinkSpeed.h"
#include "Runtime/Text.h"

#include <array>
#include <bit>
#include <chrono>
#include <linux/rtnetlink.h>
#include <utility>
#include <vector>

namespace Linux {

using Interface::LinkStatus;
using Interface::Speed;

namespace {

constexpr std::chrono::seconds secondLook{1};

/// "Every device, and spare us the statistics."
struct LinkDumpRequest {
    ifinfomsg info{};
    nlattr maskHeader{sizeof(nlattr) + sizeof(std::uint32_t), IFLA_EXT_MASK};
    std::uint32_t mask = RTEXT_FILTER_SKIP_STATS;
};

}  // namespace

LinkAgent::LinkAgent(Runtime::FdLoop& loop, std::shared_ptr<Interface::AllEthPhyIntfStatusDir> status,
                     std::shared_ptr<Interface::EthIntfStatusDir> names, Placed placed, Complaint complaint)
    : status_{std::move(status)},
      names_{std::move(names)},
      placed_{std::move(placed)},
      complaint_{std::move(complaint)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, [this] { readAll(); }},
      again_{loop, [this] {
                 readingAgain_ = true;
                 readAll();
                 readingAgain_ = false;
             }} {}

std::string LinkAgent::start(int queueBytes) {
    std::string problem = requests_.open();
    // Followed before it is read, so that nothing falls between.
    if (problem.empty()) problem = notices_.open({RTNLGRP_LINK}, queueBytes);
    if (problem.empty()) readAll();
    return problem;
}

void LinkAgent::readAll() {
    notices_.discard();
    const auto request = std::bit_cast<std::array<std::byte, sizeof(LinkDumpRequest)>>(LinkDumpRequest{});
    std::map<unsigned, LinkMessage> seen;
    const std::string problem = requests_.dump(
        RTM_GETLINK, request, [&] { seen.clear(); },
        [&](const nlmsghdr& message) {
            if (const auto link = decodeLink(message)) seen.insert_or_assign(link->ifindex, *link);
        });
    if (!problem.empty()) {
        if (complaint_) complaint_(Runtime::concat("cannot read the interfaces: ", problem));
        again_.armIn(secondLook);
        return;
    }
    links_ = std::move(seen);
    // Whoever hears of a change may follow other interfaces.
    std::vector<IntfId> all;
    for (const auto& [intf, ifindex] : followed_) all.push_back(intf);
    for (const IntfId intf : all) publish(intf);
}

void LinkAgent::notice(const nlmsghdr& message) {
    const auto link = decodeLink(message);
    if (!link) return;
    const auto held = links_.find(link->ifindex);
    const std::string nameBefore = held != links_.end() ? held->second.name : link->name;
    if (link->gone) {
        links_.erase(link->ifindex);
    } else {
        links_.insert_or_assign(link->ifindex, *link);
    }
    if (nameBefore != link->name) publish(nameBefore);
    publish(link->name);
}

const LinkMessage* LinkAgent::find(const std::string& name) const {
    for (const auto& [ifindex, link] : links_) {
        if (link.name == name) return &link;
    }
    return nullptr;
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
    const LinkMessage* found = find(intf.name());
    const unsigned before = std::exchange(followed->second, found != nullptr ? found->ifindex : 0);
    // Another device under the same name: the old one's link ended with it.
    if (found == nullptr || (before != 0 && before != found->ifindex)) publishAbsent(intf);
    if (found == nullptr) return;

    const LinkMessage link = *found;
    const auto record = status_->intfStatusIs(intf);
    // Down is told first and up last: a record whose link is up is right in everything else.
    if (!link.operational) record->linkStatusIs(LinkStatus::linkDown);
    if (placed_) placed_(intf, link.ifindex, link.mac);
    if (names_) names_->intfIs(intf, true);
    record->macAddrIs(link.mac);
    record->speedEnumIs(speed(intf, link));
    if (!link.operational) return;
    if (record->speedEnum() == Speed::speedUnknown && !readingAgain_) again_.armIn(secondLook);
    record->linkStatusIs(LinkStatus::linkUp);
}

void LinkAgent::publishAbsent(IntfId intf) {
    const auto record = status_->intfStatusIs(intf);
    record->linkStatusIs(LinkStatus::linkDown);
    record->speedEnumIs(speed(intf, {}));
    if (names_) names_->intfDel(intf);
    if (placed_) placed_(intf, 0, EthAddr{});
}

Speed LinkAgent::speed(IntfId intf, const LinkMessage& link) const {
    if (const auto given = configuredSpeed_.find(intf); given != configuredSpeed_.end()) return given->second;
    return link.operational ? kernelSpeed(link.name) : Speed::speedUnknown;
}

void LinkAgent::followIs(IntfId intf) {
    followed_.try_emplace(intf, 0);
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
