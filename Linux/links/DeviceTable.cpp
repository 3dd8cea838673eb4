#include "Linux/links/DeviceTable.h"

#include "Linux/links/Ethtool.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <linux/rtnetlink.h>
#include <set>
#include <utility>
#include <vector>

namespace Linux {

namespace {

constexpr std::chrono::seconds secondLook{1};
constexpr int speedQueueBytes = 256 << 10;

/// "Every device, and spare us the statistics."
struct LinkDumpRequest {
    ifinfomsg info{};
    nlattr maskHeader{sizeof(nlattr) + sizeof(std::uint32_t), IFLA_EXT_MASK};
    std::uint32_t mask = RTEXT_FILTER_SKIP_STATS;
};

/// "Those that are ports of that bridge."
struct PortDumpRequest {
    LinkDumpRequest link;
    nlattr masterHeader{sizeof(nlattr) + sizeof(std::uint32_t), IFLA_MASTER};
    std::uint32_t master = 0;
};

}  // namespace

DeviceTable::DeviceTable(Runtime::FdLoop& loop, Complaint complaint)
    : complaint_{std::move(complaint)},
      notices_{loop, [this](const nlmsghdr& message) { notice(message); }, [this] { readAll(); }},
      speedNotices_{loop, [this](const nlmsghdr& message) { speedNotice(message); }, [this] { readAll(); }},
      again_{loop, [this] {
                 readingAgain_ = true;
                 if (unread_) readAll();
                 for (const unsigned ifindex : std::exchange(modeUnknown_, {})) learnMode(ifindex);
                 readingAgain_ = false;
             }} {}

std::string DeviceTable::start(int queueBytes) {
    std::string problem = requests_.open();
    // Followed before it is read, so that nothing falls between.
    if (problem.empty()) problem = notices_.open({RTNLGRP_LINK}, queueBytes);
    if (!problem.empty()) return problem;
    if (const std::string why = followSpeeds(); !why.empty() && complaint_) {
        complaint_(Runtime::concat("a speed that changes while its link is up is not noticed: ", why));
    }
    readAll();
    return {};
}

std::string DeviceTable::followSpeeds() {
    NetlinkRequests generic;
    if (std::string problem = generic.open(NETLINK_GENERIC); !problem.empty()) return problem;
    EthtoolFamily family;
    if (const NetlinkAnswer answer = family.resolve(generic); !answer) return answer.problem();
    return speedNotices_.open({family.monitorGroup()}, speedQueueBytes, NETLINK_GENERIC);
}

void DeviceTable::readAll() {
    notices_.discard();
    const auto request = std::bit_cast<std::array<std::byte, sizeof(LinkDumpRequest)>>(LinkDumpRequest{});
    std::map<unsigned, LinkMessage> seen;
    const NetlinkAnswer answer = requests_.dump(
        RTM_GETLINK, request, [&] { seen.clear(); },
        [&](const nlmsghdr& message) {
            if (const auto link = decodeLink(message); link && !link->portOnly)
                seen.insert_or_assign(link->device.ifindex, *link);
        });
    unread_ = !answer;
    if (!answer) {
        if (complaint_) complaint_(Runtime::concat("cannot read the interfaces: ", answer.problem()));
        again_.armIn(secondLook);
        return;
    }
    // What is gone goes first: its name may have a new bearer.
    std::set<unsigned> before;
    for (const auto& [ifindex, device] : devices_) before.insert(ifindex);
    for (const unsigned ifindex : before) {
        if (!seen.contains(ifindex)) put(ifindex, nullptr);
    }
    for (const auto& [ifindex, link] : seen) take(link);
}

void DeviceTable::readBridge(unsigned ifindex) {
    if (ifindex == 0) return;
    // What is older than the answers is heard before them.
    notices_.drain();
    std::vector<LinkMessage> seen;
    const auto keep = [&](const nlmsghdr& message) {
        if (const auto link = decodeLink(message); link && !link->portOnly) seen.push_back(*link);
    };
    NetlinkMessage one{RTM_GETLINK, requestAck};
    ifinfomsg info{};
    info.ifi_index = static_cast<int>(ifindex);
    one.part(info).attribute(IFLA_EXT_MASK, std::uint32_t{RTEXT_FILTER_SKIP_STATS});
    (void)requests_.ask(std::move(one), keep);
    const std::vector<LinkMessage> bridge = seen;
    PortDumpRequest ports;
    ports.master = ifindex;
    const auto request = std::bit_cast<std::array<std::byte, sizeof ports>>(ports);
    const NetlinkAnswer answer = requests_.dump(
        RTM_GETLINK, request, [&] { seen = bridge; }, keep);
    if (!answer) seen = bridge;
    for (const LinkMessage& link : seen) {
        if (find(link.device.ifindex) != nullptr) take(link, true);
    }
}

void DeviceTable::notice(const nlmsghdr& message) {
    if (const auto link = decodeLink(message)) take(*link);
}

void DeviceTable::speedNotice(const nlmsghdr& message) {
    if (const Device* held = find(EthtoolFamily::changedDevice(message)); held != nullptr) {
        Device now = *held;
        if (std::ranges::any_of(modesOf_, [&](const auto& wanted) { return wanted(now); })) askMode(now);
        put(now.ifindex, &now);
    }
}

void DeviceTable::take(const LinkMessage& message, bool keepsMode) {
    if (message.gone) return put(message.device.ifindex, nullptr);
    Device now = message.device;
    const Device* held = find(now.ifindex);
    if (message.portOnly) {
        if (held == nullptr) return;  // its own message is yet to come
        now = *held;
        now.bridge = message.device.bridge;
        now.portState = message.device.portState;
        now.multicastRouter = message.device.multicastRouter;
    } else if (keepsMode && held != nullptr && held->operational == now.operational) {
        now.mode = held->mode;
    } else if (std::ranges::any_of(modesOf_, [&](const auto& wanted) { return wanted(now); })) {
        askMode(now);
    }
    if (now.bridge == 0) {
        now.portState = BridgePortState::disabled;
        now.multicastRouter = 0;
    }
    put(now.ifindex, &now);
}

void DeviceTable::askMode(Device& device) {
    device.mode = device.operational ? linkMode(device.name) : LinkMode{};
    if (!device.operational || device.mode.megabitsPerSecond != 0 || readingAgain_) return;
    modeUnknown_.insert(device.ifindex);
    again_.armIn(secondLook);
}

void DeviceTable::learnMode(unsigned ifindex) {
    const Device* held = find(ifindex);
    if (held == nullptr) return;
    Device now = *held;
    askMode(now);
    put(ifindex, &now);
}

void DeviceTable::put(unsigned ifindex, const Device* now) {
    const auto held = devices_.find(ifindex);
    if (held == devices_.end() && now == nullptr) return;
    std::optional<Device> before;
    if (held != devices_.end()) before = held->second;
    if (before && now != nullptr && *before == *now) return;
    const bool sameIndex =
        before && now != nullptr && before->name == now->name && before->bridge == now->bridge;
    if (before && !sameIndex) index(*before, false);
    if (now != nullptr && !sameIndex) index(*now, true);
    if (now == nullptr) {
        devices_.erase(ifindex);
    } else {
        devices_.insert_or_assign(ifindex, *now);
    }
    const std::optional<Device> after = now != nullptr ? std::optional{*now} : std::nullopt;
    for (const Watcher& watcher : watchers_) watcher(before ? &*before : nullptr, after ? &*after : nullptr);
}

const Device* DeviceTable::find(unsigned ifindex) const {
    const auto held = devices_.find(ifindex);
    return held != devices_.end() ? &held->second : nullptr;
}

const Device* DeviceTable::find(std::string_view name) const {
    const auto held = byName_.find(name);
    return held != byName_.end() ? find(*held->second.begin()) : nullptr;
}

const std::set<unsigned>& DeviceTable::portsOf(unsigned bridge) const {
    static const std::set<unsigned> none;
    const auto held = byBridge_.find(bridge);
    return held != byBridge_.end() ? held->second : none;
}

void DeviceTable::index(const Device& device, bool there) {
    const auto change = [&](auto& index, const auto& key) {
        auto& held = index[key];
        if (there) {
            held.insert(device.ifindex);
        } else if (held.erase(device.ifindex); held.empty()) {
            index.erase(key);
        }
    };
    change(byName_, device.name);
    if (device.bridge != 0) change(byBridge_, device.bridge);
}

}  // namespace Linux
