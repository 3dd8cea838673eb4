#include "Mrp/Participant.h"

#include "Mrp/Turns.h"

#include <algorithm>
#include <utility>

namespace Mrp {

namespace {

/// Leaves that one firing of the leave timer indicates, so that many at once do not hold the loop.
constexpr unsigned leavesAtOnce = 32;
/// While frames wait that came in time to stop a leave.
constexpr Runtime::Duration backlogWait = std::chrono::milliseconds{1};
/// Attributes to which a LeaveAll is applied for the price of one event.
constexpr std::size_t leaveAllShare = 4;

ApplicantEvent applicantEventOf(Event event) {
    switch (event) {
        case Event::New:
            return ApplicantEvent::rNew;
        case Event::JoinIn:
            return ApplicantEvent::rJoinIn;
        case Event::In:
            return ApplicantEvent::rIn;
        case Event::JoinMt:
        case Event::Mt:
            return ApplicantEvent::rJoinMt;
        default:
            return ApplicantEvent::rLv;
    }
}

}  // namespace

Participant::Participant(IntfId intf, const Environment& environment)
    : intf_{intf},
      env_{environment},
      leaveTime_{std::chrono::milliseconds{environment.config.leaveTime()}},
      opportunityTimer_{environment.loop, [this] { opportunity(); }},
      leaveTimer_{environment.loop, [this] { leaveTimerFired(); }},
      leaveAllTimer_{environment.loop, [this] { leaveAllEvent(LeaveAllEvent::leaveAllTimer); }} {
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        const auto& types = env_.application.types;
        const auto other = std::ranges::find(types, types[i].replaces, &AttributeType::type);
        replaces_[i] = other == types.end() ? i : static_cast<std::uint8_t>(other - types.begin());
    }
    startLeaveAllTimer();
}

void Participant::stop() {
    stopped_ = true;
    opportunityTimer_.cancel();
    leaveTimer_.cancel();
    leaveAllTimer_.cancel();
}

// --- What the peer says --------------------------------------------------------------------------

bool Participant::receive(Reception& in, unsigned& budget) {
    const auto spend = [&budget](std::size_t cost) {
        budget -= static_cast<unsigned>(std::min<std::size_t>(budget, cost));
    };
    if (!std::exchange(in.begun, true)) {
        beginReception(in.pdu);
        in.next = in.pdu.events.begin();
        std::size_t touched = 0;
        for (std::uint8_t i = 0; i < typeCount(); ++i) {
            if (in.pdu.leaveAll.test(i)) touched += attributes_[i].size();
        }
        spend(1 + touched / leaveAllShare);
    }
    bool done = false;
    while (!stopped_ && !done && budget > 0) {
        if (in.next == in.pdu.events.end()) {
            if (in.firstTypes && !in.firstRefs.empty()) {
                spend(offerFirst(in));
                continue;
            }
            done = !std::exchange(in.firstTypes, false);
            in.next = in.pdu.events.begin();
            continue;
        }
        const AttributeType& t = type(in.next->typeIndex);
        if (t.deliverFirst != in.firstTypes) {
            in.next.leaveVector();
            continue;
        }
        const Asks asks = receiveEvent(*in.next);
        const AttributeRef ref{in.next->typeIndex, keyOf(*in.next)};
        ++in.next;
        spend(1);
        if (asks == Asks::nothing) continue;
        if (t.deliverFirst) {
            in.firstRefs.insert({ref.typeIndex, ref.key});
        } else {
            offer(ref, asks == Asks::news, asks == Asks::isNew);
            spend(indicationCost + env_.host.takeCost());
        }
    }
    publish();
    return stopped_ || done;
}

unsigned Participant::offerFirst(Reception& in) {
    const auto first = in.firstRefs.extract(in.firstRefs.begin()).value();
    const AttributeRef ref{first.first, first.second};
    const Attribute* attribute = find(ref);
    if (attribute == nullptr || !attribute->registered()) return 1;
    offer(ref, !attribute->held || attribute->accepted() != attribute->heard());
    return indicationCost + env_.host.takeCost();
}

std::uint64_t Participant::keyOf(const DecodedEvent& event) const {
    const AttributeType& t = type(event.typeIndex);
    return t.key(std::span{event.value.octets}.first(t.valueLength));
}

void Participant::beginReception(const DecodedPdu& pdu) {
    ++counts_.rxPdus;
    for (const Flaw& flaw : pdu.flaws) {
        ++counts_.malformed[static_cast<std::size_t>(flaw.reason)];
        env_.host.reportFlaw(intf_, flaw);
    }
    if (pdu.leaveAll.any()) leaveAllEvent(LeaveAllEvent::rLA);
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        // Before the values: the joins of the same PDU count as an answer to it.
        if (pdu.leaveAll.test(i)) receiveLeaveAll(i);
    }
}

void Participant::receiveLeaveAll(std::uint8_t typeIndex) {
    ++counts_.rxEvents[static_cast<std::size_t>(Event::LeaveAll)];
    for (const auto [key, attribute] : attributes_[typeIndex]) {
        const AttributeRef ref{typeIndex, key};
        applicantEvent(ref, attribute, ApplicantEvent::rLv);
        registrarEvent(ref, attribute, RegistrarEvent::rLv);
        attribute.announced = false;  // the peer itself now ends what is not declared again
        attribute.settle();
    }
    eraseIdle(typeIndex);
}

Participant::Asks Participant::receiveEvent(const DecodedEvent& in) {
    ++counts_.rxEvents[static_cast<std::size_t>(in.event)];
    const AttributeRef ref{in.typeIndex, keyOf(in)};
    Attribute* attribute = find(ref);
    const bool joins = declares(in.event);
    if (attribute == nullptr) {
        if (!joins || !mayRegister(ref.typeIndex)) return Asks::nothing;
        attribute = &findOrMake(ref);
    }
    // By the standard two values are two attributes: what the peer says of another value is not about ours.
    if (!attribute->spokenFor() || attribute->own().octets == in.value.octets) {
        applicantEvent(ref, *attribute, applicantEventOf(in.event));
    }
    if (joins) {
        dropReplaced(ref);
        const Registrar before = attribute->registrar;
        if (before == Registrar::MT && !mayRegister(ref.typeIndex)) return Asks::nothing;
        const bool changed = before == Registrar::MT || attribute->heard() != in.value;
        const bool isNew = in.event == Event::New && type(ref.typeIndex).tellsNew;
        registrarEvent(ref, *attribute, RegistrarEvent::rJoin);
        if (before == Registrar::IN && !changed) return isNew ? Asks::isNew : Asks::nothing;
        attribute->mtDue = false;
        attribute->heardIs(in.value);
        if (isNew) return Asks::isNew;
        return changed ? Asks::news : Asks::again;
    }
    if (in.event == Event::Lv && attribute->heard().octets == in.value.octets) {
        registrarEvent(ref, *attribute, RegistrarEvent::rLv);
    }
    return Asks::nothing;
}

void Participant::dropReplaced(const AttributeRef& ref) {
    Attribute* other = replaced(ref);
    if (other == nullptr || !other->refused) return;
    const AttributeRef otherRef{replaces_[ref.typeIndex], ref.key};
    if (other->held) {
        // The application still holds an earlier value of it, and will be told that it has left.
        other->refused = false;
        refused_.erase(otherRef);
        registrarEvent(otherRef, *other, RegistrarEvent::rLv);
    } else {
        unregister(otherRef, *other);
    }
    other->settle();
    eraseIfIdle(otherRef, *other);
}

bool Participant::mayRegister(std::uint8_t typeIndex) {
    if (registered_[typeIndex] < env_.config.maxAttributesPerType()) return true;
    ++counts_.droppedRegistrations;
    if (!limitReached_.test(typeIndex)) {
        limitReached_.set(typeIndex);
        env_.host.reportLimit(intf_, type(typeIndex).type, true);
    }
    return false;
}

void Participant::offer(const AttributeRef& ref, bool news, bool isNew) {
    const Attribute* attribute = find(ref);
    const AttributeValue offered = attribute->heard();
    const bool wasHeld = attribute->held && !attribute->refused;
    const Outcome outcome = env_.host.joinIndication(intf_, ref, offered, isNew);
    if (outcome == Outcome::rangeError) ++counts_.rangeErrors;
    if (outcome != Outcome::accepted) ++counts_.refusedJoins;
    if (stopped_) return;
    // The handler may have purged it meanwhile; then the outcome is about nothing that is still there.
    Attribute* const after = find(ref);
    if (after == nullptr || !after->registered()) return;
    after->refused = outcome != Outcome::accepted;
    if (after->refused) {
        refused_.insert(ref);
        return;
    }
    refused_.erase(ref);
    after->held = true;
    after->accept();
    if (type(ref.typeIndex).retriesPort && (news || !wasHeld)) env_.host.portOpened(intf_);
}

void Participant::offerAgain(const AttributeRef& ref) {
    if (!registered(ref)) return;
    offer(ref, true);
    publish();
}

bool Participant::held(const AttributeRef& ref) const {
    const Attribute* attribute = find(ref);
    return attribute != nullptr && attribute->registered() && attribute->held;
}

bool Participant::registered(const AttributeRef& ref) const {
    const Attribute* attribute = find(ref);
    return attribute != nullptr && attribute->registered();
}

// --- What the application asks -------------------------------------------------------------------

bool Participant::declare(const AttributeRef& ref, const AttributeValue& value, bool asNew) {
    Attribute& attribute = findOrMake(ref);
    const bool declared = isMember(attribute.applicant);
    const bool changed = attribute.spokenFor() && attribute.own() != value;
    applicantEvent(ref, attribute,
                   asNew     ? ApplicantEvent::newRequest
                   : changed ? ApplicantEvent::newValue
                             : ApplicantEvent::join);
    if (changed) queue(ref, attribute, Runtime::Duration{0});
    attribute.ownIs(value);
    return !declared || changed;
}

void Participant::seed(const AttributeRef& ref, const AttributeValue& value) {
    Attribute& attribute = findOrMake(ref);
    if (attribute.registered()) return;
    registrarEvent(ref, attribute, RegistrarEvent::rJoin);
    attribute.heardIs(value);
    attribute.held = true;
    attribute.accept();
    attribute.settle();
}

void Participant::resume(const AttributeRef& ref, const AttributeValue& value) {
    declare(ref, value);
    Attribute& attribute = *find(ref);
    attribute.announced = true;
    attribute.tell();
}

void Participant::withdraw(const AttributeRef& ref) {
    Attribute* attribute = find(ref);
    if (attribute == nullptr || !isMember(attribute->applicant)) return;
    applicantEvent(ref, *attribute, attribute->announced ? ApplicantEvent::leaveTold : ApplicantEvent::leave);
    if (attribute->applicant == Applicant::LA) {
        attribute->ownIs(attribute->told());
    } else {
        owe({replaces_[ref.typeIndex], ref.key});
    }
    attribute->settle();
    eraseIfIdle(ref, *attribute);
}

void Participant::owe(const AttributeRef& ref) {
    Attribute* attribute = find(ref);
    if (attribute == nullptr || !attribute->announced || attribute->spokenFor()) return;
    applicantEvent(ref, *attribute, ApplicantEvent::takeBack);
    attribute->ownIs(attribute->told());
}

void Participant::forget(const AttributeRef& ref) {
    Attribute* attribute = find(ref);
    if (attribute == nullptr) return;
    // A withdrawal that is on its way is not this declaration's: the peer must still hear it.
    applicantEvent(ref, *attribute, ApplicantEvent::forget);
    if (attribute->applicant != Applicant::LA)
        attribute->announced = attribute->announced && replaces_[ref.typeIndex] != ref.typeIndex;
    attribute->mtDue = false;
    if (attribute->refused) {
        attribute->held = false;
    } else {
        unregister(ref, *attribute);
    }
    attribute->settle();
    eraseIfIdle(ref, *attribute);
}

void Participant::purge(const AttributeRef& ref) {
    Attribute* attribute = find(ref);
    if (attribute == nullptr || !attribute->registered()) return;
    if (attribute->spokenFor() && attribute->own().octets != attribute->heard().octets) {
        attribute->mtDue = true;
        queue(ref, *attribute, Runtime::Duration{0});
    } else {
        applicantEvent(ref, *attribute,
                       ApplicantEvent::rLv);  // Re-declare!: with an MT registrar, LO says Mt
        requestOpportunity(Runtime::Duration{0});
    }
    unregister(ref, *attribute);
    attribute->settle();
    env_.host.registrationEnded(ref.key);
}

void Participant::purgeAll() {
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        for (const auto [key, attribute] : attributes_[i]) {
            if (!attribute.registered()) continue;
            unregister({i, key}, attribute);
            attribute.settle();
            env_.host.registrationEnded(key);
        }
        eraseIdle(i);
    }
    leaveAll();
}

void Participant::leaveAll() { leaveAllEvent(LeaveAllEvent::leaveAllTimer); }

void Participant::periodic() {
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        for (const auto [key, attribute] : attributes_[i]) {
            applicantEvent({i, key}, attribute, ApplicantEvent::periodic);
        }
    }
}

// --- The machines --------------------------------------------------------------------------------

void Participant::applicantEvent(const AttributeRef& ref, Attribute& attribute, ApplicantEvent event) {
    const Applicant before = attribute.applicant;
    const Applicant next = step(before, event, attribute.registered()).next;
    // Also what changes nothing: whoever reads the trace asks why.
    if (env_.trace.on(Runtime::TraceLevel::detail)) {
        env_.trace(Runtime::TraceLevel::detail, intf_, " type ", unsigned{type(ref.typeIndex).type}, " key ",
                   State::hexText(ref.key), " applicant: ", applicantNames[static_cast<std::size_t>(before)],
                   " -> ", applicantNames[static_cast<std::size_t>(next)], " (",
                   applicantEventNames[static_cast<std::size_t>(event)], ')');
    }
    attribute.applicant = next;
    if (next != before && hasToSpeak(next)) queue(ref, attribute, patience(next, event));
}

void Participant::registrarEvent(const AttributeRef& ref, Attribute& attribute, RegistrarEvent event) {
    const Registrar before = attribute.registrar;
    const RegistrarCell cell = step(before, event);
    if (env_.trace.on(Runtime::TraceLevel::detail)) {
        env_.trace(Runtime::TraceLevel::detail, intf_, " type ", unsigned{type(ref.typeIndex).type}, " key ",
                   State::hexText(ref.key), " registrar: ", registrarNames[static_cast<std::size_t>(before)],
                   " -> ", registrarNames[static_cast<std::size_t>(cell.next)], " (",
                   registrarEventNames[static_cast<std::size_t>(event)], ')');
    }
    if (cell.next == before) return;
    attribute.registrar = cell.next;
    if (cell.timer == LeaveTimer::start) {
        attribute.leaveSequence = ++leaveSequence_;
        leaves_.push({env_.loop.now() + leaveTime_, ref.key, attribute.leaveSequence, ref.typeIndex});
        if (!leaveTimer_.armed()) leaveTimer_.armAt(leaves_.front().due);
    } else if (cell.timer == LeaveTimer::stop) {
        leaves_.stopped([this](const LeaveQueue::Entry& entry) { return leaveRuns(entry); });
    }
    std::size_t& registered = registered_[ref.typeIndex];
    if (before == Registrar::MT) ++registered;
    if (cell.next != Registrar::MT) return;
    --registered;
    // Some way below the limit, so that a port that stays near it is not reported again and again.
    const std::size_t limit = env_.config.maxAttributesPerType();
    if (limitReached_.test(ref.typeIndex) && registered < limit - limit / 10) {
        limitReached_.reset(ref.typeIndex);
        env_.host.reportLimit(intf_, type(ref.typeIndex).type, false);
    }
}

void Participant::unregister(const AttributeRef& ref, Attribute& attribute) {
    registrarEvent(ref, attribute, RegistrarEvent::flush);
    attribute.held = false;
    if (attribute.refused) refused_.erase(ref);
    attribute.refused = false;
}

bool Participant::leaveRuns(const LeaveQueue::Entry& entry) {
    const Attribute* attribute = find({entry.typeIndex, entry.key});
    return attribute != nullptr && attribute->registrar == Registrar::LV &&
           attribute->leaveSequence == entry.sequence;
}

void Participant::leaveTimerFired() {
    const Runtime::Time now = env_.loop.now();
    const std::optional<Runtime::Time> backlog = env_.host.backlogSince(intf_);
    const auto mayStillBeStopped = [&] { return backlog && *backlog <= leaves_.front().due; };
    for (unsigned handled = 0;
         handled < leavesAtOnce && !leaves_.empty() && leaves_.front().due <= now && !mayStillBeStopped();
         ++handled) {
        const LeaveQueue::Entry entry = leaves_.front();
        leaves_.pop();
        if (!leaveRuns(entry)) continue;
        const AttributeRef ref{entry.typeIndex, entry.key};
        Attribute& attribute = *find(ref);
        const bool held = attribute.held;
        const AttributeValue value = attribute.accepted();
        registrarEvent(ref, attribute, RegistrarEvent::leaveTimer);
        unregister(ref, attribute);
        attribute.settle();
        eraseIfIdle(ref, attribute);
        if (held && env_.host.leaveIndication(intf_, ref, value) == Outcome::rangeError)
            ++counts_.rangeErrors;
        handled += env_.host.takeCost() / indicationCost;
        if (stopped_) break;
        env_.host.registrationEnded(ref.key);
    }
    publish();
    if (stopped_ || leaves_.empty()) return;
    // What is overdue goes on behind everything else that is due by now.
    leaveTimer_.armAt(mayStillBeStopped() ? now + backlogWait : std::max(now, leaves_.front().due));
}

void Participant::leaveTimeChanged() {
    const Runtime::Duration changed = std::chrono::milliseconds{env_.config.leaveTime()};
    leaves_.shift(changed - leaveTime_,
                  env_.loop.now());  // all run for the same time, or they would end out of order
    leaveTime_ = changed;
    if (!leaves_.empty()) leaveTimer_.armAt(leaves_.front().due);
}

bool Participant::leaveAllEvent(LeaveAllEvent event) {
    const LeaveAllCell cell = step(leaveAll_, event);
    leaveAll_ = cell.next;
    if (cell.startTimer) startLeaveAllTimer();
    if (leaveAll_ == LeaveAllState::Active) requestOpportunity(Runtime::Duration{0});
    return cell.sendLeaveAll;
}

void Participant::startLeaveAllTimer() {
    // LeaveAllTime < T < 1.5 LeaveAllTime
    const Runtime::Duration shortest = std::chrono::milliseconds{std::max(env_.config.leaveAllTime(), 1U)};
    const auto spread = static_cast<std::uint64_t>(shortest.count() / 2 - 1);
    leaveAllTimer_.armIn(shortest +
                         Runtime::Duration{1 + static_cast<Runtime::Duration::rep>(env_.random() % spread)});
}

Attribute& Participant::findOrMake(const AttributeRef& ref) {
    const auto [attribute, fresh] = attributes_[ref.typeIndex].tryEmplace(ref.key);
    if (fresh) {
        const auto second =
            std::chrono::duration_cast<std::chrono::seconds>(env_.loop.now().time_since_epoch());
        attribute.bornSecond = static_cast<std::uint32_t>(second.count());
    }
    return attribute;
}

void Participant::eraseIfIdle(const AttributeRef& ref, const Attribute& attribute) {
    if (attribute.idle()) attributes_[ref.typeIndex].erase(ref.key);
}

void Participant::eraseIdle(std::uint8_t typeIndex) {
    std::vector<std::uint64_t> idle;
    for (const auto [key, attribute] : attributes_[typeIndex]) {
        if (attribute.idle()) idle.push_back(key);
    }
    for (const std::uint64_t key : idle) attributes_[typeIndex].erase(key);
}

void Participant::publish() {
    env_.host.count(intf_, counts_);
    counts_ = {};
}

}  // namespace Mrp
