// What a group agent decides, and what it makes of the kernel's answers.
#include "Linux/groups/GroupAgent.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Linux {

using Switch::GroupId;

namespace {

/// One call begins no further batch after this time, so that others on the loop have their turn.
constexpr std::chrono::milliseconds turnShare{5};
constexpr std::size_t requestsPerBatch = 128;
/// Refusals that are published before the time is looked at again: each makes the reservation machine act.
constexpr std::size_t refusalsAtOnce = 32;
/// What does not last for so long is not worth a line.
constexpr std::chrono::seconds newsDelay{2};
/// What is expected to pass by itself is told as a failure once it has lasted for so long.
constexpr std::chrono::seconds patience{5};
/// How soon after the table seems full it is looked at whether the kernel still snoops.
constexpr std::chrono::milliseconds peakDelay{100};

const GroupProblem tableFull{"the bridge's multicast table is full", GroupProblem::Kind::lasting};

}  // namespace

void GroupAgent::apply() {
    woken_ = false;
    if (!started_) return;
    const auto begin = loop_.now();
    // Only who knows what happened until now can tell a difference from old news.
    const bool upToDate = kernelGroups_.drain();
    if (upToDate) {
        if (readDue_ && view_.bridge != 0) readTable();
        for (const EthAddr mac : refusals_.due(begin)) marked_.insert(mac);
        useFreedPlaces();
        while ((!marked_.empty() || unsettled_) && loop_.now() - begin < turnShare) carryOut(nextBatch());
        if (stuck_ && !graceEnd_.armed()) flushStuck();
        if (!graceEnd_.armed()) strays_.removeSome();
        ownership_.flush();
        publish(begin);
        if (kernelGroups_.table().peak() >= limit() && !snooping_.armed()) snooping_.armIn(peakDelay);
    }
    if (!upToDate || !marked_.empty() || unsettled_ || (strays_.due() && !graceEnd_.armed())) {
        again_.armIn({});
    } else if (!placeless_.empty() && !again_.armed()) {
        again_.armIn(GroupTable::linger);
    }
    if (const auto due = refusals_.nextDue()) retry_.armAt(*due);
}

void GroupAgent::publish(Runtime::Time begin) {
    // Each of these makes others change what is wanted, at once.
    bool all = refusals_.publish(refusalsAtOnce);
    while (!all && loop_.now() - begin < turnShare) all = refusals_.publish(refusalsAtOnce);
    if (!all) again_.armIn({});

    GroupStatus& status = outcomes_.status();
    // A place that was given up just now counts: it is free before anybody has asked for it.
    const std::size_t used = kernelGroups_.table().groups();
    const std::size_t places = std::min<std::size_t>(limit(), view_.tableSize) + places_.idle();
    outcomes_.publish(used, view_.tableSize, places > used + margin ? places - used - margin : 0);
    status.floodedIs(view_.bridge != 0 && !view_.snooping
                         ? Runtime::concat("multicast snooping of ", config_->bridge(), " is off")
                         : std::string{});
    std::set<IntfId> everything;
    for (const unsigned port : kernelGroups_.routers()) everything.insert(IntfId{portName(port)});
    for (auto port = status.routerPorts().firstKey(); port; port = status.routerPorts().nextKey(*port)) {
        if (!everything.contains(*port)) status.routerPortDel(*port);
    }
    for (const IntfId port : everything) status.routerPortIs(port);
}

GroupAgent::Batch GroupAgent::nextBatch() {
    Batch batch;
    // What needs no request costs little, but not nothing.
    for (std::size_t looked = 0; !marked_.empty() && looked < 4 * requestsPerBatch; ++looked) {
        const EthAddr mac = marked_.extract(marked_.begin()).value();
        auto& wishes = batch.wishes[mac] = wishes_.of(mac, view_);
        looked += wishes.size();
        claim(mac, wishes);
    }
    const auto moved = places_.settle(capacity(), requestsPerBatch);
    unsettled_ = moved.size() >= requestsPerBatch;
    for (const Group& group : moved) {
        if (!batch.wishes.contains(group.mac)) marked_.insert(group.mac);
    }
    std::size_t places = freePlaces();
    for (auto at = batch.wishes.begin(); at != batch.wishes.end();) {
        if (batch.adds.size() + batch.deletes.size() < requestsPerBatch) {
            decide(at->first, batch, places);
            ++at;
        } else {
            marked_.insert(at->first);
            at = batch.wishes.erase(at);
        }
    }
    return batch;
}

void GroupAgent::claim(EthAddr mac, const std::vector<WantedGroup>& wishes) {
    std::map<Group, GroupPlaces::Claim> claims;
    for (const WantedGroup& wish : wishes) {
        auto& claim = claims[wish.member.group];
        claim.listened = claim.listened || wish.listened || refusals_.expected({wish.vlan, mac}, loop_.now());
        if (!claim.talker) claim.talker = wish.talker;
    }
    const GroupTable& table = kernelGroups_.table();
    for (auto& [group, claim] : claims) {
        const bool held = table.has(group, GroupOwner::us);
        claim.free = table.has(group, GroupOwner::another);
        // What was there before has its place; what is still there after it was told to go has not.
        places_.claim(group, claim, held && !places_.knows(group));
    }
    for (const Group& group : places_.of(mac)) {
        if (!claims.contains(group)) places_.release(group);
    }
}

void GroupAgent::decide(EthAddr mac, Batch& batch, std::size_t& places) {
    placeless_.erase(mac);
    const auto& wishes = batch.wishes.at(mac);
    std::vector<WantedGroup> granted;
    std::map<GroupMember, const WantedGroup*> wishOf;
    for (const WantedGroup& wish : wishes) {
        wishOf.emplace(wish.member, &wish);
        if (places_.has(wish.member.group)) {
            granted.push_back(wish);
        } else if (auto problem = obstacle(wish)) {
            batch.why.emplace(wish.member, std::move(*problem));
        } else {
            batch.why.emplace(wish.member, tableFull);
        }
    }
    const GroupDifference todo = difference(granted, kernelGroups_.table().of(mac));
    const Group* made = nullptr;  // by an add of this batch
    for (const GroupMember& member : todo.missing) {
        std::optional<GroupProblem> problem = obstacle(*wishOf.at(member));
        const bool needsPlace =
            !kernelGroups_.table().contains(member.group) && (made == nullptr || *made != member.group);
        if (!problem && needsPlace && places == 0) {
            placeless_.insert(mac);
            problem = {tableFull.text, GroupProblem::Kind::passing};
        }
        if (problem) {
            batch.why.emplace(member, std::move(*problem));
            continue;
        }
        if (needsPlace) {
            --places;
            made = &member.group;
        }
        batch.adds.push_back(member);
    }
    // Once its stream is there again, it is an entry like any other.
    for (const WantedGroup& wish : granted) inherited_.erase(wish.member);
    for (const GroupMember& member : todo.surplus) {
        if (inherited_.contains(member)) {
            delayed_.insert(mac);
        } else if (view_.vlanFiltering && member.group.vid == 0) {
            stuck_ = true;
        } else if (view_.snooping && !contested_.leftAlone(member, loop_.now())) {
            batch.deletes.push_back(member);
        }
    }
}

std::optional<GroupProblem> GroupAgent::obstacle(const WantedGroup& wish) const {
    using enum GroupProblem::Kind;
    const EthAddr mac = wish.member.group.mac;
    if (!isForwardable(mac)) return {{"no bridge forwards that address to chosen ports", lasting}};
    if (!view_.snooping) return {{"multicast snooping is off", lasting}};
    if (contested_.leftAlone(wish.member, loop_.now())) return {{"somebody else keeps changing it", retried}};
    if (const std::string* why = refusals_.heldBack({wish.vlan, mac}, loop_.now())) return {{*why, lasting}};
    return std::nullopt;
}

void GroupAgent::carryOut(Batch batch) {
    const auto results = writer_.carryOut(batch.adds, batch.deletes);
    bool full = false;
    for (std::size_t i = 0; i < results.size(); ++i) {
        full = full || results[i].reaction == GroupReaction::full;
        if (i >= batch.adds.size()) {
            deleted(batch.deletes[i - batch.adds.size()], results[i].reaction);
        } else if (auto problem = added(batch.adds[i], results[i])) {
            batch.why.emplace(batch.adds[i], std::move(*problem));
        }
    }
    for (const auto& [mac, wishes] : batch.wishes) {
        outcomes_.enter(mac, groupOutcome(wishes, kernelGroups_.table(), batch.why));
        // The kernel refused all that came after it was full.
        if (full) {
            marked_.insert(mac);
        } else {
            judge(mac, batch);
        }
    }
    if (full) snoopAgain(batch.adds);
    if (!outcomes_.failing().empty() && !news_.armed()) news_.armIn(newsDelay);
}

std::optional<GroupProblem> GroupAgent::added(const GroupMember& member, const GroupWriter::Result& result) {
    using enum GroupProblem::Kind;
    switch (result.reaction) {
        case GroupReaction::done:
            return std::nullopt;
        case GroupReaction::unmarked:
            marked_.insert(member.group.mac);
            return GroupProblem{result.problem, passing};
        case GroupReaction::full:
            return tableFull;
        case GroupReaction::reread:
            contested_.changed(member, loop_.now());
            break;
        case GroupReaction::passing:
            // The kernel may have stopped snooping without a word.
            if (!snooping_.armed()) snooping_.armIn({});
            break;
        case GroupReaction::refused:
            return GroupProblem{result.problem, retried};
    }
    unsure_.insert(member.group.mac);
    readSoon();
    return GroupProblem{result.problem, passing};
}

void GroupAgent::deleted(const GroupMember& member, GroupReaction reaction) {
    if (reaction == GroupReaction::done) return;
    if (reaction == GroupReaction::reread) contested_.changed(member, loop_.now());
    // It is asked for again when the table has been read, which is once a second at most.
    unsure_.insert(member.group.mac);
    readSoon();
}

void GroupAgent::judge(EthAddr mac, const Batch& batch) {
    struct Verdict {
        bool listened = false;
        bool passing = false;
        const GroupProblem* problem = nullptr;
    };
    const Runtime::Time now = loop_.now();
    std::map<VlanId, Verdict> verdicts;
    for (const VlanId vlan : refusals_.of(mac)) verdicts[vlan];
    bool waits = false;
    for (const WantedGroup& wish : batch.wishes.at(mac)) {
        Verdict& verdict = verdicts[wish.vlan];
        verdict.listened = wish.listened;
        if (kernelGroups_.table().owner(wish.member)) {
            carriedOut_->groupIs({wish.vlan, mac}, wish.intf);
            continue;
        }
        const auto why = batch.why.find(wish.member);
        const bool passing = why == batch.why.end() || why->second.kind == GroupProblem::Kind::passing;
        const bool patient = passing && now - waiting_.try_emplace(mac, now).first->second < patience;
        waits = waits || passing;
        verdict.passing = verdict.passing || patient;
        if (!patient && why != batch.why.end()) verdict.problem = &why->second;
    }
    if (!waits) {
        waiting_.erase(mac);
    } else if (now - waiting_.at(mac) >= patience) {
        waiting_[mac] = now;
    }
    for (const auto& [vlan, verdict] : verdicts) {
        const GroupId id{vlan, mac};
        if (!wishes_.has(vlan, mac)) {
            refusals_.drop(id);
        } else if (verdict.problem != nullptr) {
            const bool retried = verdict.problem->kind != GroupProblem::Kind::lasting;
            if (verdict.listened || (retried && refusals_.expected(id, now)))
                refusals_.refuse(id, verdict.problem->text, retried, now);
        } else if (!verdict.passing && refusals_.heldBack(id, now) == nullptr) {
            refusals_.fulfilled(id, now);
        }
    }
}

std::size_t GroupAgent::limit() const {
    constexpr auto unlimited = std::numeric_limits<std::size_t>::max();
    return std::min(view_.tableSize != 0 ? view_.tableSize : unlimited, fullAt_.value_or(unlimited));
}

std::size_t GroupAgent::freePlaces() {
    const std::size_t taken = kernelGroups_.table().placesTaken(loop_.now()) + margin;
    return taken < limit() ? limit() - taken : 0;
}

std::size_t GroupAgent::capacity() const {
    const std::size_t others = kernelGroups_.table().othersGroups() + margin;
    return others < limit() ? limit() - others : 0;
}

void GroupAgent::useFreedPlaces() {
    if (placeless_.empty()) return;
    for (std::size_t places = freePlaces(); places > 0 && !placeless_.empty(); --places) {
        marked_.insert(placeless_.extract(placeless_.begin()));
    }
    // Who has waited for too long is told.
    const Runtime::Time now = loop_.now();
    for (auto& [mac, since] : waiting_) {
        if (now - since >= patience && placeless_.erase(mac) != 0) marked_.insert(mac);
    }
}

void GroupAgent::snoopAgain(const std::vector<GroupMember>& lastAdds) {
    const NetlinkAnswer answer = writer_.snoop();
    readTable();
    // Whatever limit the bridge claims, this much is certain.
    fullAt_ = kernelGroups_.table().groups();
    kernelGroups_.table().forgetPeak();
    complain(Runtime::concat("the multicast table was full at ", *fullAt_,
                             " groups, so the kernel switched snooping off and flooded everything; ",
                             answer && view_.snooping
                                 ? std::string{"it is switched on again"}
                                 : Runtime::concat("switching it on again failed: ", answer.problem())));
    // Without room in it, the next host that joins some group would bring the same about.
    std::vector<GroupMember> back;
    for (const GroupMember& member : lastAdds) {
        if (kernelGroups_.table().owner(member) == GroupOwner::us) back.push_back(member);
        places_.putBack(member.group);
    }
    (void)writer_.remove(back);
}

void GroupAgent::enlargeTable() {
    if (config_->groupTableSize() <= view_.tableSize) return;
    const auto answer = writer_.tableSizeIs(config_->groupTableSize());
    if (!answer) complain("cannot enlarge the multicast table: " + answer.problem());
}

void GroupAgent::flushStuck() {
    stuck_ = false;
    const bool could = writer_.flushes();
    const std::vector<GroupMember> concerned = writer_.ours();
    if (writer_.flushStuck()) {
        for (const GroupMember& member : concerned) marked_.insert(member.group.mac);
    } else if (could && !writer_.flushes()) {
        complain(
            "groups from before it filtered VLANs stay in its table until it does not, or their ports leave");
    }
}

}  // namespace Linux
