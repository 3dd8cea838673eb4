#include "Linux/groups/GroupAgent.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Linux {

namespace {

/// The table is read no more often.
constexpr std::chrono::seconds readInterval{1};

}  // namespace

GroupAgent::GroupAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests,
                       const Records& records, std::function<void()> wake, Report report,
                       const std::string& files, Served served)
    : loop_{loop},
      devices_{devices},
      requests_{requests},
      config_{records.config},
      wake_{std::move(wake)},
      report_{std::move(report)},
      served_{std::move(served)},
      carriedOut_{records.outcomes},
      outcomes_{records.status},
      refusals_{records.refusals},
      wishes_{records.wanted},
      ownership_{devices, config_->groupProtocol(), files,
                 [this](const std::string& line) { complain(line); }},
      kernelGroups_{
          loop,
          requests,
          [this](unsigned bridge, const GroupEntry& entry) { return ownership_.ownerOf(bridge, entry); },
          [this](const GroupMember& member, auto before, auto now) { tableChanged(member, before, now); },
          [this] { this->wake(); },
          [this] {
              readDue_ = true;
              this->wake();
          }},
      writer_{loop, devices, requests, kernelGroups_, ownership_},
      strays_{devices, requests, ownership_, served_, [this](const std::string& line) { complain(line); }},
      routers_{requests, ownership_.memory(), config_->routerPorts(),
               [this](const std::string& line) { complain(line); }},
      reactor_{records.wanted->watch([this](const State::Change& change) { wishChanged(change); })},
      again_{loop, [this] { this->wake(); }},
      read_{loop,
            [this] {
                devices_.readBridge(view_.bridge);
                readDue_ = true;
                this->wake();
            }},
      graceEnd_{loop,
                [this] {
                    inherited_.clear();
                    marked_.merge(delayed_);
                    this->wake();
                }},
      audit_{loop, [this] { auditByTimer(); }},
      news_{loop,
            [this] {
                for (const std::string& line : outcomes_.news()) complain(line);
            }},
      snooping_{loop, [this] { watchSnooping(); }},
      retry_{loop, [this] { this->wake(); }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
}

std::string GroupAgent::start(Ability marks) {
    ownership_.read(marks);
    // Followed before it is read, so that nothing falls between.
    if (std::string problem = kernelGroups_.start(); !problem.empty()) return problem;
    started_ = true;
    graceEnd_.armIn(grace);
    audit_.armIn(auditInterval);
    lookAtBridge();
    routers_.giveBackBut(devices_, config_->routerPorts() ? 0 : view_.bridge);
    findLeftovers();
    markAll();
    return {};
}

void GroupAgent::wishChanged(const State::Change& change) {
    const auto concerned = wishes_.changed(change);
    if (!concerned) return markAll();
    for (const EthAddr mac : *concerned) mark(mac);
}

void GroupAgent::deviceChanged(const Device* before, const Device* now) {
    const auto isOurPort = [this](const Device* device) {
        return device != nullptr && view_.bridge != 0 && device->bridge == view_.bridge;
    };
    const auto matters = [&](const Device* device) {
        return device != nullptr && (device->name == config_->bridge() || isOurPort(device));
    };
    if (!started_) return;
    if (now != nullptr && strays_.has(now->ifindex)) {
        strays_.retry();
        wake();
    }
    if (!matters(before) && !matters(now)) return;
    lookAtBridge();
    if (isOurPort(now)) {
        routers_.look(*now, loop_.now());
    } else if (isOurPort(before)) {
        routers_.left(before->ifindex);
    }
}

void GroupAgent::lookAtBridge() {
    BridgeView now = bridgeView(devices_, config_->bridge());
    if (now == view_) return;
    const BridgeView before = std::exchange(view_, std::move(now));
    if (before.tableSize != view_.tableSize) fullAt_.reset();
    contested_.clear();
    if (before.bridge != view_.bridge) {
        if (before.bridge != 0) leaveBridge(before);
        kernelGroups_.bridgeIs(view_.bridge);
        writer_.bridgeIs(view_.bridge);
        places_.clear();
        if (view_.bridge != 0) {
            // It may be back, before all was taken back that we had put there.
            strays_.drop(view_.bridge);
            ownership_.marked(view_.bridge);
            enlargeTable();
            for (const auto& [name, port] : view_.ports) routers_.look(*devices_.find(port), loop_.now());
            readDue_ = true;
        }
    }
    judgeSnooping();
    if (view_.bridge != 0 && !view_.snooping && (before.snooping || before.bridge != view_.bridge)) {
        complain(Runtime::concat(
            "multicast snooping is off: all multicast frames are flooded, and no group can be changed",
            overfilled_ ? "; the table was full, it is switched on again when there is room" : ""));
    } else if (view_.snooping && !before.snooping && before.bridge == view_.bridge) {
        tell(Tone::informational, "multicast snooping is on again");
    }
    for (const auto& [name, port] : view_.ports) {
        const auto sameIndex = [&, index = port](const auto& p) { return p.second == index; };
        const auto old = std::ranges::find_if(before.ports, sameIndex);
        if (old != before.ports.end() && old->first != name) ownership_.portNameIs(port, name);
    }
    refusals_.retryAll();
    markAll();
}

void GroupAgent::leaveBridge(const BridgeView& before) {
    const Device* device = devices_.find(before.bridge);
    if (device == nullptr || !device->bridgeSettings) {
        // Gone with all its entries.
        return ownership_.bridgeDel(before.bridge);
    }
    kernelGroups_.drain();
    strays_.put(before.bridge, writer_.ours());
    for (const auto& [name, port] : before.ports) routers_.giveBack(port);
    complain(Runtime::concat("the bridge is called ", device->name,
                             " now, and no longer the switch: its groups are removed"));
}

void GroupAgent::tableChanged(const GroupMember& member, std::optional<GroupOwner> before,
                              std::optional<GroupOwner> now) {
    if (!now) {
        ownership_.gone(member);
        if (!placeless_.empty()) wake();
    }
    if (!member.group.ip.empty()) return wake();
    if (differences_ && !marked_.contains(member.group.mac) &&
        (now == GroupOwner::us || before == GroupOwner::us))
        differences_->insert(describedGroup(member, view_) + (now ? ": ours, but not known" : ": missing"));
    const bool isOurs = before == GroupOwner::us || now == GroupOwner::us;
    if (isOurs && kernelGroups_.known() && contested_.changed(member, loop_.now())) {
        complain(Runtime::concat(describedGroup(member, view_), ": somebody else has changed it ",
                                 Contention::limit, " times within a minute; left alone for a minute"));
    }
    mark(member.group.mac);
}

void GroupAgent::mark(EthAddr mac) {
    marked_.insert(mac);
    wake();
}

void GroupAgent::markAll() {
    marked_.merge(wishes_.addresses());
    for (const GroupMember& member : writer_.ours()) marked_.insert(member.group.mac);
    for (const EthAddr mac : outcomes_.failing()) marked_.insert(mac);
    wake();
}

void GroupAgent::wake() {
    if (started_ && !std::exchange(woken_, true)) wake_();
}

void GroupAgent::readTable() {
    readDue_ = false;
    lastRead_ = loop_.now();
    const bool first = !kernelGroups_.known();
    if (const NetlinkAnswer answer = kernelGroups_.read(); !answer) {
        complain("cannot read the multicast table: " + answer.problem());
        return readSoon();
    }
    judgeSnooping();
    if (first) {
        std::set<GroupMember> there;
        for (const HeldGroup& held : kernelGroups_.table().all()) {
            there.insert(held.member);
            if (held.owner == GroupOwner::us && graceEnd_.armed()) inherited_.insert(held.member);
        }
        strays_.addTo(there);
        ownership_.keepOnly(there);
    }
    marked_.merge(unsure_);
}

void GroupAgent::readSoon() {
    if (!read_.armed()) read_.armAt(std::max(loop_.now(), lastRead_ + readInterval));
}

void GroupAgent::withdraw() {
    if (!std::exchange(started_, false)) return;
    for (Runtime::Timer* timer : {&again_, &read_, &graceEnd_, &audit_, &news_, &snooping_, &retry_})
        timer->cancel();
    kernelGroups_.drain();
    if (!kernelGroups_.known() && view_.bridge != 0) readTable();
    devices_.readBridge(view_.bridge);
    // Snooping that a full table switched off may stay on, now that there is room.
    const Device* bridge = devices_.find(view_.bridge);
    if (overfilled_ && bridge != nullptr && bridge->bridgeSettings &&
        !bridge->bridgeSettings->multicastSnooping)
        (void)writer_.snoop();
    if (const std::string problem = writer_.removeAll(); !problem.empty())
        complain("some groups could not be deleted: " + problem);
    strays_.retry();
    while (strays_.due()) strays_.removeSome();
    routers_.giveBackBut(devices_, 0);
    ownership_.flush();
}

void GroupAgent::tell(Tone tone, const std::string& line) const {
    if (report_) report_(tone, Runtime::concat("bridge ", config_->bridge(), ": ", line));
}

std::string GroupAgent::portName(unsigned port) const {
    const Device* device = devices_.find(port);
    return device != nullptr ? device->name : std::to_string(port);
}

}  // namespace Linux
