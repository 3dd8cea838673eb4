#include "Linux/GroupAgent.h"

#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Linux {

using Bridging::Input::EthGroup;
using Bridging::Input::FdbConfig;

namespace {

/// The table is read no more often.
constexpr std::chrono::seconds readInterval{1};
constexpr std::size_t auditLines = 10;

}  // namespace

GroupAgent::GroupAgent(Runtime::FdLoop& loop, DeviceTable& devices, NetlinkChannel& requests,
                       std::shared_ptr<const Config> config,
                       std::shared_ptr<const Bridging::Input::Config> wanted,
                       std::shared_ptr<GroupStatus> status, std::function<void()> wake, Complaint complaint,
                       std::string journal)
    : loop_{loop},
      devices_{devices},
      requests_{requests},
      config_{std::move(config)},
      wanted_{std::move(wanted)},
      wake_{std::move(wake)},
      complaint_{std::move(complaint)},
      ledger_{std::move(status)},
      journal_{std::move(journal)},
      mirror_{loop, requests, [this](const GroupEntry& entry) { return ownerOf(entry); },
              [this](const GroupMember& member, auto before, auto now) { tableChanged(member, before, now); },
              [this] {
                  readDue_ = true;
                  this->wake();
              }},
      reactor_{wanted_->watch([this](const State::Change& change) { wishChanged(change); })},
      again_{loop, [this] { this->wake(); }},
      read_{loop,
            [this] {
                devices_.readAll();
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
      news_{loop, [this] {
                for (const std::string& line : ledger_.news()) complain(line);
            }} {
    devices.watch([this](const Device* before, const Device* now) { deviceChanged(before, now); });
}

std::string GroupAgent::start() {
    // Followed before it is read, so that nothing falls between.
    if (std::string problem = mirror_.start(); !problem.empty()) return problem;
    started_ = true;
    graceEnd_.armIn(grace);
    audit_.armIn(auditInterval);
    lookAtBridge();
    markAll();
    return {};
}

void GroupAgent::wishChanged(const State::Change& change) {
    if (const auto* group = dynamic_cast<const EthGroup*>(&change.entity)) {
        mark(group->addr());
    } else if (const auto* mac = change.key<EthAddr>()) {
        mark(*mac);
    } else if (const auto* vlan = change.key<VlanId>()) {
        // A VLAN may come and go with groups in it; one that goes can still be looked at.
        auto& known = vlans_[*vlan];
        const auto now = wanted_->fdbConfig(*vlan);
        for (const auto& fdb : {std::shared_ptr<const FdbConfig>{known.lock()}, now}) {
            if (fdb) fdb->ethGroup().each([this](EthAddr m, const EthGroup&) { mark(m); });
        }
        known = now;
    } else {
        markAll();
    }
}

void GroupAgent::deviceChanged(const Device* before, const Device* now) {
    const auto matters = [this](const Device* device) {
        return device != nullptr &&
               (device->name == config_->bridge() || (view_.bridge != 0 && device->bridge == view_.bridge));
    };
    if (started_ && (matters(before) || matters(now))) lookAtBridge();
}

void GroupAgent::lookAtBridge() {
    BridgeView now = bridgeView(devices_, config_->bridge());
    if (now == view_) return;
    const BridgeView before = std::exchange(view_, std::move(now));
    if (before.tableSize != view_.tableSize) fullAt_.reset();
    drift_.clear();
    if (before.bridge != view_.bridge) {
        mirror_.bridgeIs(view_.bridge);
        if (view_.bridge != 0) {
            enlargeTable();
            readDue_ = true;
        }
    }
    if (view_.bridge != 0 && !view_.snooping && (before.snooping || before.bridge != view_.bridge)) {
        complain("multicast snooping is off: all multicast frames are flooded, and no group can be changed");
    } else if (view_.snooping && !before.snooping && before.bridge == view_.bridge) {
        complain("multicast snooping is on again");
    }
    for (const auto& [name, port] : view_.ports) {
        const auto sameIndex = [&, index = port](const auto& p) { return p.second == index; };
        const auto old = std::ranges::find_if(before.ports, sameIndex);
        if (old != before.ports.end() && old->first != name) journal_.portNameIs(port, name);
    }
    markAll();
}

void GroupAgent::tableChanged(const GroupMember& member, std::optional<GroupOwner> before,
                              std::optional<GroupOwner> now) {
    if (!now) {
        journal_.erase(member);
        if (!placeless_.empty()) wake();
    }
    if (!member.group.ip.empty()) return;
    const bool isOurs = before == GroupOwner::us || now == GroupOwner::us;
    if (isOurs && mirror_.known() && drift_.changed(member, loop_.now())) {
        complain(Runtime::concat(describedGroup(member, view_), ": somebody else has changed it ",
                                 GroupDrift::limit, " times within a minute; left alone for a minute"));
    }
    mark(member.group.mac);
}

GroupOwner GroupAgent::ownerOf(const GroupEntry& entry) const {
    if (!entry.member.group.ip.empty() || !entry.permanent) return GroupOwner::another;
    const bool isOurs = entry.protocol == config_->groupProtocol() ||
                        journal_.lists(entry.member, portName(entry.member.port));
    return isOurs ? GroupOwner::us : GroupOwner::another;
}

void GroupAgent::mark(EthAddr mac) {
    marked_.insert(mac);
    wake();
}

void GroupAgent::markAll() {
    marked_.merge(wantedAddresses(*wanted_));
    for (const HeldGroup& held : mirror_.table().all()) {
        if (held.owner == GroupOwner::us) marked_.insert(held.member.group.mac);
    }
    for (const EthAddr mac : ledger_.failing()) marked_.insert(mac);
    wake();
}

void GroupAgent::wake() {
    if (started_ && !std::exchange(woken_, true)) wake_();
}

void GroupAgent::readTable() {
    readDue_ = false;
    lastRead_ = loop_.now();
    const bool first = !mirror_.known();
    if (const NetlinkAnswer answer = mirror_.read(); !answer) {
        complain("cannot read the multicast table: " + answer.problem());
        return readSoon();
    }
    if (first) {
        std::set<GroupMember> there;
        for (const HeldGroup& held : mirror_.table().all()) {
            there.insert(held.member);
            if (held.owner == GroupOwner::us && graceEnd_.armed()) inherited_.insert(held.member);
        }
        if (const std::string problem = journal_.keepOnly(there); !problem.empty()) complain(problem);
    }
    marked_.merge(unsure_);
}

void GroupAgent::readSoon() {
    if (!read_.armed()) read_.armAt(std::max(loop_.now(), lastRead_ + readInterval));
}

std::vector<std::string> GroupAgent::audit(bool repair) {
    std::vector<std::string> lines;
    for (const GroupFinding& finding : findings(repair)) {
        lines.push_back(finding.why.empty() ? finding.text
                                            : Runtime::concat(finding.text, " (", finding.why, ')'));
    }
    return lines;
}

std::vector<GroupFinding> GroupAgent::findings(bool repair) {
    // What the look at the bridge brings up is news.
    std::set<EthAddr> underway = marked_;
    underway.insert(delayed_.begin(), delayed_.end());
    devices_.readAll();
    if (view_.bridge == 0)
        return {{{}, Runtime::concat("bridge ", config_->bridge(), " does not exist"), {}}};
    std::vector<GroupEntry> entries;
    if (const NetlinkAnswer answer = mirror_.dump(entries); !answer)
        return {{{}, "cannot read the multicast table", answer.problem()}};
    GroupTable now;
    for (const GroupEntry& entry : entries) now.put(entry.member, ownerOf(entry));
    auto findings = groupFindings(*wanted_, view_, now, ledger_.status(),
                                  [&](EthAddr mac) { return underway.contains(mac); });
    if (repair) {
        for (const GroupFinding& finding : findings) marked_.insert(finding.mac);
        readDue_ = true;
        wake();
    }
    if (!view_.snooping)
        findings.push_back({{}, Runtime::concat("multicast snooping of ", config_->bridge(), " is off"), {}});
    return findings;
}

void GroupAgent::auditByTimer() {
    audit_.armIn(auditInterval);
    drift_.review(loop_.now());
    if (view_.bridge == 0) return;
    std::set<std::string> before = std::exchange(found_, {});
    std::size_t lines = 0;
    for (const GroupFinding& finding : findings(true)) {
        found_.insert(finding.text);
        // What failed was told when it did.
        if (!finding.why.empty() || before.contains(finding.text)) continue;
        if (++lines <= auditLines) complain(finding.text);
    }
    if (lines > auditLines) complain(Runtime::concat("and ", lines - auditLines, " more differences"));
}

void GroupAgent::withdraw() {
    if (!std::exchange(started_, false)) return;
    for (Runtime::Timer* timer : {&again_, &read_, &graceEnd_, &audit_, &news_}) timer->cancel();
    mirror_.drain();
    std::vector<GroupMember> ours;
    for (const HeldGroup& held : mirror_.table().all()) {
        if (held.owner == GroupOwner::us) ours.push_back(held.member);
    }
    if (const std::string problem = remove(ours); !problem.empty())
        complain("some groups could not be deleted: " + problem);
    writeJournal();
}

void GroupAgent::writeJournal() {
    const std::string problem = journal_.flush();
    if (problem != journalProblem_ && !problem.empty()) complain(problem);
    journalProblem_ = problem;
}

void GroupAgent::complain(const std::string& line) const {
    if (complaint_) complaint_(Runtime::concat("bridge ", config_->bridge(), ": ", line));
}

std::string GroupAgent::portName(unsigned port) const {
    const Device* device = devices_.find(port);
    return device != nullptr ? device->name : std::to_string(port);
}

}  // namespace Linux
