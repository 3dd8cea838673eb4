// What a group agent asks of the kernel, and what it makes of the answers.
#include "Linux/GroupAgent.h"
#include "Linux/GroupAnswer.h"
#include "Runtime/Text.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Linux {

namespace {

/// For so long one call may hold the loop, and by so many requests it may miss that.
constexpr std::chrono::milliseconds turnShare{5};
constexpr std::size_t batchSize = 128;
/// What does not last for so long is not worth a line.
constexpr std::chrono::seconds newsDelay{2};

constexpr std::string_view tableFull = "the bridge's multicast table is full";

}  // namespace

void GroupAgent::apply() {
    woken_ = false;
    if (!started_) return;
    const auto begin = loop_.now();
    // Only who knows what happened until now can tell a difference from old news.
    const bool upToDate = mirror_.drain();
    if (upToDate) {
        if (readDue_ && view_.bridge != 0) readTable();
        useFreedPlaces();
        while (!marked_.empty() && loop_.now() - begin < turnShare) carryOut(nextBatch());
        writeJournal();
        ledger_.publish(mirror_.table().groups(), view_.tableSize);
    }
    if (!upToDate || !marked_.empty()) {
        again_.armIn({});
    } else if (!placeless_.empty() && mirror_.table().placesTaken(loop_.now()) > mirror_.table().groups()) {
        again_.armIn(GroupTable::linger);
    }
}

GroupAgent::Batch GroupAgent::nextBatch() {
    Batch batch;
    std::size_t places = freePlaces();
    // What needs no request costs little, but not nothing.
    while (!marked_.empty() && batch.adds.size() + batch.deletes.size() < batchSize &&
           batch.wishes.size() < 4 * batchSize) {
        decide(marked_.extract(marked_.begin()).value(), batch, places);
    }
    return batch;
}

void GroupAgent::decide(EthAddr mac, Batch& batch, std::size_t& places) {
    placeless_.erase(mac);
    auto& wishes = batch.wishes[mac] = wantedGroups(*wanted_, mac, view_);
    const GroupDifference todo = difference(wishes, mirror_.table().of(mac));
    const Group* made = nullptr;  // by an add of this batch
    for (const GroupMember& member : todo.missing) {
        std::string why = obstacle(member);
        const bool needsPlace =
            !mirror_.table().contains(member.group) && (made == nullptr || *made != member.group);
        if (why.empty() && needsPlace && places == 0) {
            why = tableFull;
            placeless_.insert(mac);
        }
        if (!why.empty()) {
            batch.why.emplace(member, std::move(why));
            continue;
        }
        if (needsPlace) {
            --places;
            made = &member.group;
        }
        batch.adds.push_back(member);
    }
    // Once its stream is there again, it is an entry like any other.
    for (const WantedGroup& wish : wishes) inherited_.erase(wish.member);
    for (const GroupMember& member : todo.surplus) {
        if (inherited_.contains(member)) {
            delayed_.insert(mac);
        } else if (view_.snooping && !drift_.leftAlone(member, loop_.now())) {
            batch.deletes.push_back(member);
        }
    }
}

std::string GroupAgent::obstacle(const GroupMember& member) const {
    if (!isForwardable(member.group.mac)) return "no bridge forwards that address to chosen ports";
    if (!view_.snooping) return "multicast snooping is off";
    if (drift_.leftAlone(member, loop_.now())) return "somebody else keeps changing it";
    return {};
}

void GroupAgent::carryOut(Batch batch) {
    std::vector<NetlinkMessage> messages;
    // What comes goes before what leaves: a group that moves to another port has one all the time.
    for (const GroupMember& member : batch.adds) {
        if (!marksEntries_) journal_.add(member, portName(member.port));
        messages.push_back(groupAdd(view_.bridge, member, marksEntries_ ? config_->groupProtocol() : 0));
    }
    for (const GroupMember& member : batch.deletes) messages.push_back(groupDelete(view_.bridge, member));
    writeJournal();

    std::vector<NetlinkAnswer> answers;
    if (!messages.empty()) answers = requests_.carryOut(messages);
    bool full = false;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (i >= batch.adds.size()) {
            deleted(batch.deletes[i - batch.adds.size()], answers[i]);
        } else if (auto why = added(batch.adds[i], answers[i], full)) {
            batch.why.emplace(batch.adds[i], std::move(*why));
        }
    }
    for (const auto& [mac, wishes] : batch.wishes) {
        // The kernel refused all that came after it was full.
        if (full) marked_.insert(mac);
        ledger_.enter(mac, groupOutcome(wishes, mirror_.table(), batch.why));
    }
    if (full) snoopAgain(batch.adds);
    if (!ledger_.failing().empty() && !news_.armed()) news_.armIn(newsDelay);
}

std::optional<std::string> GroupAgent::added(const GroupMember& member, const NetlinkAnswer& answer,
                                             bool& full) {
    const GroupReaction reaction = reactionToAdd(answer);
    if (reaction == GroupReaction::done) {
        mirror_.table().put(member, GroupOwner::us);
        return std::nullopt;
    }
    journal_.erase(member);
    switch (reaction) {
        case GroupReaction::unmarked:
            if (std::exchange(marksEntries_, false))
                complain("this kernel does not mark entries; a file remembers which are ours");
            marked_.insert(member.group.mac);
            return std::nullopt;
        case GroupReaction::full:
            full = true;
            return std::string{tableFull};
        case GroupReaction::reread:
            unsure_.insert(member.group.mac);
            drift_.changed(member, loop_.now());
            break;
        default:
            break;
    }
    readSoon();
    return answer.problem();
}

void GroupAgent::deleted(const GroupMember& member, const NetlinkAnswer& answer) {
    const GroupReaction reaction = reactionToDelete(answer);
    if (reaction == GroupReaction::done) return forget(member);
    if (reaction == GroupReaction::reread) {
        unsure_.insert(member.group.mac);
        drift_.changed(member, loop_.now());
    }
    readSoon();
}

std::size_t GroupAgent::freePlaces() {
    constexpr auto unlimited = std::numeric_limits<std::size_t>::max();
    const std::size_t limit =
        std::min(view_.tableSize != 0 ? view_.tableSize : unlimited, fullAt_.value_or(unlimited));
    const std::size_t taken = mirror_.table().placesTaken(loop_.now()) + margin;
    return taken < limit ? limit - taken : 0;
}

void GroupAgent::useFreedPlaces() {
    if (placeless_.empty()) return;
    for (std::size_t places = freePlaces(); places > 0 && !placeless_.empty(); --places) {
        marked_.insert(placeless_.extract(placeless_.begin()));
    }
}

void GroupAgent::snoopAgain(const std::vector<GroupMember>& lastAdds) {
    const NetlinkAnswer answer = requests_.carryOut(multicastSnooping(view_.bridge, true));
    devices_.readAll();
    readTable();
    // Whatever limit the bridge claims, this much is certain.
    fullAt_ = mirror_.table().groups();
    complain(Runtime::concat("the multicast table was full at ", *fullAt_,
                             " groups, so the kernel switched snooping off and flooded everything; ",
                             answer && view_.snooping
                                 ? std::string{"it is switched on again"}
                                 : Runtime::concat("switching it on again failed: ", answer.problem())));
    // Without room in it, the next host that joins some group would bring the same about.
    std::vector<GroupMember> back;
    for (const GroupMember& member : lastAdds) {
        if (mirror_.table().owner(member) == GroupOwner::us) back.push_back(member);
    }
    (void)remove(back);
}

void GroupAgent::enlargeTable() {
    if (config_->groupTableSize() <= view_.tableSize) return;
    const auto answer = requests_.carryOut(multicastTableSize(view_.bridge, config_->groupTableSize()));
    if (!answer) complain("cannot enlarge the multicast table: " + answer.problem());
}

std::string GroupAgent::remove(const std::vector<GroupMember>& members) {
    if (members.empty()) return {};
    std::vector<NetlinkMessage> messages;
    messages.reserve(members.size());
    for (const GroupMember& member : members) messages.push_back(groupDelete(view_.bridge, member));
    const auto answers = requests_.carryOut(messages);
    std::string problem;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        if (answers[i]) {
            forget(members[i]);
        } else {
            problem = answers[i].problem();
        }
    }
    return problem;
}

void GroupAgent::forget(const GroupMember& member) {
    mirror_.table().erase(member, loop_.now());
    journal_.erase(member);
}

}  // namespace Linux
