// What a group agent does from time to time: looks whether all is as it should be, and mends it.
#include "Linux/groups/GroupAgent.h"
#include "Linux/groups/GroupRemoval.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <utility>

namespace Linux {

using Runtime::concat;

namespace {

constexpr std::chrono::seconds snoopingInterval{1};
constexpr std::size_t auditLines = 10;
/// An answer for people.
constexpr std::size_t mostLines = 1000;

}  // namespace

void GroupAgent::watchSnooping() {
    if (view_.bridge == 0) return;
    devices_.readBridge(view_.bridge);
    judgeSnooping();
    GroupTable& table = kernelGroups_.table();
    if (view_.snooping) {
        table.forgetPeak();
    } else if (overfilled_ && table.groups() + margin <= limit() + places_.idle()) {
        // What nobody listens to can make the room.
        (void)writer_.snoop();
    }
    if (overfilled_ || table.peak() >= limit()) snooping_.armIn(snoopingInterval);
}

void GroupAgent::judgeSnooping() {
    if (view_.snooping || view_.bridge == 0) {
        overfilled_ = false;
        return;
    }
    if (overfilled_) return;
    // Somebody who switches it off has no full table as a reason.
    constexpr int floods = 8;
    for (int i = 0; i < floods && !kernelGroups_.drain(); ++i) {
    }
    overfilled_ = kernelGroups_.table().peak() >= limit();
    if (overfilled_ && started_) snooping_.armIn(snoopingInterval);
}

void GroupAgent::findLeftovers() {
    GroupsByBridge tables;
    if (const NetlinkAnswer answer = readAllGroups(requests_, tables); !answer)
        return complain("cannot read the multicast tables: " + answer.problem());
    for (const auto& [index, entries] : tables) {
        const Device* bridge = devices_.find(index);
        if (index == view_.bridge || bridge == nullptr) continue;
        std::vector<GroupMember> ours;
        for (const GroupEntry& entry : entries) {
            if (ownership_.ownerOf(index, entry) == GroupOwner::us) ours.push_back(entry.member);
        }
        if (ours.empty()) continue;
        const auto remembered = [bridge](const BridgeMemory::Mark& mark) {
            return mark.first == bridge->ifindex;
        };
        const bool running = served_ && served_(bridge->name);
        if (running) continue;  // another daemon's
        const bool certain = served_ || std::ranges::any_of(ownership_.memory().marks(), remembered);
        tell(certain ? Tone::informational : Tone::warning,
             concat("bridge ", bridge->name, " has groups with our mark (", ours.size(), ')',
                    certain ? ", left by an earlier run: they are removed" : "; msrpctl clean removes them"));
        if (!certain) continue;
        const auto isMarked = [&](const GroupEntry& e) { return e.protocol == config_->groupProtocol(); };
        if (std::ranges::any_of(entries, isMarked)) ownership_.marked(index);
        strays_.put(index, std::move(ours));
    }
    for (const BridgeMemory::Mark& mark : std::set{ownership_.memory().marks()}) {
        const auto isMarked = [&](const GroupEntry& entry) { return entry.protocol == mark.second; };
        const auto table = tables.find(mark.first);
        const bool used = table != tables.end() && std::ranges::any_of(table->second, isMarked);
        const bool current = mark == BridgeMemory::Mark{view_.bridge, config_->groupProtocol()};
        if (!used && !current && !strays_.has(mark.first)) ownership_.memory().markDel(mark);
    }
}

std::vector<std::string> GroupAgent::audit(bool repair) {
    std::vector<std::string> lines;
    if (!started_) return lines;
    if (repair) refusals_.retryAll();
    const auto all = findings(repair);
    for (const GroupFinding& finding : all) {
        if (lines.size() == mostLines) {
            lines.push_back(concat("and ", all.size() - mostLines, " more differences of groups"));
            break;
        }
        lines.push_back(finding.why.empty() ? finding.text : concat(finding.text, " (", finding.why, ')'));
    }
    return lines;
}

std::vector<GroupFinding> GroupAgent::findings(bool repair) {
    // What the look at the bridge brings up is news.
    std::set<EthAddr> underway = marked_;
    underway.insert(delayed_.begin(), delayed_.end());
    devices_.readBridge(view_.bridge);
    std::vector<GroupFinding> findings;
    GroupsByBridge tables;
    if (const NetlinkAnswer answer = readAllGroups(requests_, tables); !answer)
        return {{{}, "cannot read the multicast table", answer.problem()}};
    for (const auto& [index, entries] : tables) {
        const Device* bridge = devices_.find(index);
        if (index == view_.bridge || bridge == nullptr || (served_ && served_(bridge->name))) continue;
        const auto count = std::ranges::count_if(entries, [&, b = index](const auto& entry) {
            return ownership_.ownerOf(b, entry) == GroupOwner::us;
        });
        if (count != 0)
            findings.push_back({{},
                                concat("bridge ", bridge->name, " has groups with our mark (", count, ')'),
                                "msrpctl clean removes them"});
    }
    if (view_.bridge == 0) {
        findings.push_back({{}, concat("bridge ", config_->bridge(), " does not exist"), {}});
        return findings;
    }
    const std::vector<GroupEntry>& entries = tables[view_.bridge];
    GroupTable now;
    for (const GroupEntry& entry : entries) now.put(entry.member, ownership_.ownerOf(view_.bridge, entry));
    const auto isUnderway = [&](EthAddr mac) { return underway.contains(mac); };
    auto differences = groupFindings(wishes_, view_, now, outcomes_, isUnderway, mostLines);
    if (repair) {
        for (const GroupFinding& finding : differences) marked_.insert(finding.mac);
        readDue_ = true;
        wake();
    }
    std::ranges::move(differences, std::back_inserter(findings));
    std::ranges::move(bridgeFindings(notOffloaded(entries)), std::back_inserter(findings));
    for (const auto& [name, port] : view_.ports) {
        if (repair) routers_.look(*devices_.find(port), loop_.now());
    }
    return findings;
}

std::vector<GroupFinding> GroupAgent::bridgeFindings(const std::set<GroupMember>& leftOut) {
    GroupStatus& status = outcomes_.status();
    std::vector<GroupFinding> findings;
    std::set<std::string> keys;
    for (const GroupMember& member : leftOut) {
        for (const WantedGroup& wish : wishes_.of(member.group.mac, view_)) {
            if (wish.member != member) continue;
            findings.push_back({{}, describedGroup(member, view_) + ": not taken by the switch chip", {}});
            if (keys.size() < GroupStatus::listed) keys.insert(failureKey(wish));
        }
    }
    for (auto key = status.notOffloaded().firstKey(); key; key = status.notOffloaded().nextKey(*key)) {
        if (!keys.contains(*key)) status.notOffloadedDel(*key);
    }
    for (const std::string& key : keys) status.notOffloadedIs(key);
    if (!view_.snooping)
        findings.push_back({{}, concat("multicast snooping of ", config_->bridge(), " is off"), {}});
    for (const unsigned port : kernelGroups_.routers()) {
        if (!config_->routerPorts())
            findings.push_back(
                {{}, concat(portName(port), " gets every stream, as a multicast router's port"), {}});
    }
    return findings;
}

void GroupAgent::auditByTimer() {
    audit_.armIn(auditInterval);
    strays_.retry();
    contested_.review(loop_.now());
    if (view_.bridge == 0) return;
    devices_.readBridge(view_.bridge);
    for (const auto& [name, port] : view_.ports) routers_.look(*devices_.find(port), loop_.now());
    // Only what nobody has told is news.
    if (!kernelGroups_.drain()) return;
    differences_.emplace();
    readTable();
    for (const GroupFinding& finding : bridgeFindings(kernelGroups_.leftOut()))
        differences_->insert(finding.text);
    const std::set<std::string> before = std::exchange(found_, std::move(*differences_));
    differences_.reset();
    std::size_t lines = 0;
    for (const std::string& line : found_) {
        if (!before.contains(line) && ++lines <= auditLines) complain(line);
    }
    if (lines > auditLines) complain(concat("and ", lines - auditLines, " more differences"));
    // All is looked at again, piece by piece.
    markAll();
}

}  // namespace Linux
