/// How a participant takes its transmit opportunities (IEEE 802.1Q 10.7.4.1 and 10.7.6).
#include "Mrp/Participant.h"

#include <algorithm>
#include <utility>

namespace Mrp {

namespace {

/// Values that may be sent to join two vectors into one: fewer octets than a vector header and a value.
constexpr std::size_t longestBridge = 8;
/// Attributes that are looked at before what they have to say is sent: what many have to say is worked off in
/// pieces, each while the processor still has it at hand.
constexpr std::size_t piece = 8192;
/// Attributes for which an empty queue keeps room.
constexpr std::size_t keptRoom = 256;

/// What a transmission is on the wire.  An In or JoinIn tells the peer that its own declaration of the same
/// value is registered here.
std::optional<Event> eventOf(Send send, const Attribute& attribute, bool optionalToo) {
    const bool in =
        attribute.registrar == Registrar::IN && attribute.own().octets == attribute.heard().octets;
    switch (send) {
        case Send::optionalSJ:
            if (!optionalToo) return std::nullopt;
            [[fallthrough]];
        case Send::sJ:
            return in ? Event::JoinIn : Event::JoinMt;
        case Send::optionalS:
            if (!optionalToo) return std::nullopt;
            [[fallthrough]];
        case Send::s:
            return in ? Event::In : Event::Mt;
        case Send::sN:
            return Event::New;
        case Send::sL:
            return Event::Lv;
        default:
            return std::nullopt;
    }
}

/// True for what both sides declare while its registration runs out: this side has asked with a LeaveAll, and
/// had that frame been lost, nobody would know of it.  A further Join, free for QA, asks once more.
bool mustAsk(const Attribute& attribute) {
    return attribute.applicant == Applicant::QA && attribute.registrar == Registrar::LV;
}

}  // namespace

Runtime::Duration Participant::patience(Applicant state, ApplicantEvent why) const {
    // What repeats itself does so half a JoinTime later: then it survives a burst of losses, the peer's
    // answer may spare it, and opportunities stay free for news.  An observer's question has time for the
    // same reasons.
    const bool repeats = why == ApplicantEvent::tx || why == ApplicantEvent::txLA;
    return repeats || state == Applicant::LO ? joinTime() / 2 : Runtime::Duration{0};
}

void Participant::queue(const AttributeRef& ref, Attribute& attribute, Runtime::Duration within) {
    if (!attribute.queued) {
        attribute.queued = true;
        pending_.push_back(ref);
    }
    requestOpportunity(within);
}

void Participant::requestOpportunity() { requestOpportunity(Runtime::Duration{0}); }

void Participant::requestOpportunity(Runtime::Duration within) {
    if (stopped_) return;
    const Runtime::Time now = env_.loop.now();
    const Runtime::Time when = std::max(now + within, pace_.earliest(now, joinTime()));
    if (!opportunityTimer_.armed() || when < opportunityTimer_.when()) opportunityTimer_.armAt(when);
}

void Participant::opportunity() {
    const Runtime::Time now = env_.loop.now();
    const bool goesOn = leaveAllAt_.has_value();
    if (const Runtime::Time earliest = pace_.earliest(now, joinTime()); !goesOn && earliest > now) {
        return opportunityTimer_.armAt(earliest);
    }
    if (!env_.host.mayTransmit(intf_)) return opportunityTimer_.armAt(now);
    if (!goesOn && leaveAllEvent(LeaveAllEvent::tx)) beginLeaveAll();
    const bool sent = leaveAllAt_ ? continueLeaveAll() : transmit(env_.config.pdusPerOpportunity());
    if (sent && !goesOn) pace_.take(now);
    if (leaveAllAt_) {
        opportunityTimer_.armAt(now);
    } else {
        // The room that a burst has taken, several times what the attributes of a port take otherwise.
        if (batch_.empty() && batch_.capacity() > keptRoom) std::vector<AttributeRef>{}.swap(batch_);
        if (!batch_.empty()) requestOpportunity(Runtime::Duration{0});
        if (!pending_.empty()) requestOpportunity(joinTime() / 2);
    }
    publish();
}

void Participant::flush() {
    while (leaveAllAt_) continueLeaveAll();
    batch_.insert(batch_.end(), pending_.begin(), pending_.end());
    pending_.clear();
    std::sort(batch_.begin(), batch_.end());
    transmit(SIZE_MAX);
    publish();
}

bool Participant::transmit(std::size_t maxPdus) {
    takeBatch();
    const std::uint64_t sentBefore = counts_.txPdus;
    const auto mayStillSend = [&] {
        return std::max<std::size_t>(maxPdus, 1) - (counts_.txPdus - sentBefore);
    };
    while (!batch_.empty() && mayStillSend() > 0) {
        const std::vector<Utterance> plan = planBatch();
        env_.host.transmitted(plan.size());
        const std::size_t fit = sendPlan(plan, false, mayStillSend());
        for (std::size_t i = 0; i < fit; ++i) said(plan[i], ApplicantEvent::tx);
        const std::size_t served = fit < plan.size() ? plan[fit].batchIndex : std::min(batch_.size(), piece);
        batch_.erase(batch_.begin(), batch_.begin() + static_cast<std::ptrdiff_t>(served));
    }
    return counts_.txPdus != sentBefore;
}

void Participant::beginLeaveAll() {
    pending_.clear();
    batch_.clear();
    for (std::uint8_t i = 0; i < typeCount(); ++i) {
        ++counts_.txEvents[static_cast<std::size_t>(Event::LeaveAll)];
        for (const auto [key, attribute] : attributes_[i]) {
            attribute.queued = false;
            attribute.mtDue = false;
            registrarEvent({i, key}, attribute, RegistrarEvent::rLv);
        }
    }
    leaveAllAt_ = AttributeRef{};
    leaveAllHeaderDue_ = true;
    leaveAllPdus_ = std::max<std::size_t>(env_.config.pdusPerOpportunity(), 1);
}

bool Participant::continueLeaveAll() {
    const std::vector<Utterance> plan = planLeaveAll();
    env_.host.transmitted(plan.size());
    const std::uint64_t sentBefore = counts_.txPdus;
    const bool header = std::exchange(leaveAllHeaderDue_, false);
    const std::size_t fit = leaveAllPdus_ == 0 ? 0 : sendPlan(plan, header, leaveAllPdus_);
    leaveAllPdus_ -= std::min<std::size_t>(leaveAllPdus_, counts_.txPdus - sentBefore);
    for (std::size_t i = 0; i < plan.size(); ++i) {
        const bool done = i < fit || !plan[i].event;
        said(plan[i], done ? ApplicantEvent::txLA : ApplicantEvent::txLAF);
    }
    return counts_.txPdus != sentBefore;
}

void Participant::takeBatch() {
    if (!batch_.empty()) return;
    std::swap(batch_, pending_);
    std::sort(batch_.begin(), batch_.end());
}

std::vector<Participant::Utterance> Participant::planBatch() {
    using Why = Utterance::Why;
    std::vector<Utterance> plan;
    const std::size_t taken = std::min(batch_.size(), piece);
    plan.reserve(taken);
    auto last = attributes_[0].end();
    for (std::size_t i = 0; i < taken; ++i) {
        const AttributeRef& ref = batch_[i];
        const auto at = attributes_[ref.typeIndex].lowerBound(ref.key);  // there: queued ones are not deleted
        Attribute& attribute = (*at).value;
        const ApplicantCell cell = step(attribute.applicant, ApplicantEvent::tx);
        const auto event = eventOf(cell.send, attribute, mustAsk(attribute));
        if (event) bridge(plan, i, last, at);
        if (attribute.mtDue) plan.push_back({Why::purged, ref, &attribute, Event::Mt, i});
        plan.push_back({Why::transition, ref, &attribute, event, i});
        last = at;
    }
    return plan;
}

void Participant::bridge(std::vector<Utterance>& plan, std::size_t batchIndex, Attributes::iterator from,
                         Attributes::iterator to) const {
    const std::uint8_t typeIndex = batch_[batchIndex].typeIndex;
    if (plan.empty() || !plan.back().event || plan.back().ref.typeIndex != typeIndex) return;
    const AttributeType& t = type(typeIndex);
    const auto octets = [&t](const Attribute& attribute) {
        return std::span{attribute.own().octets}.first(t.valueLength);
    };
    const std::size_t before = plan.size();
    if (auto next = from; ++next == to) return;
    while (true) {
        const Attribute& previous = (*from).value;
        const auto [key, gap] = *++from;
        if (!t.follows(octets(previous), octets(gap))) break;
        if (from == to) return;
        const ApplicantCell cell = step(gap.applicant, ApplicantEvent::tx);
        const auto event = eventOf(cell.send, gap, true);
        if (!event || gap.queued || plan.size() - before == longestBridge) break;
        plan.push_back({Utterance::Why::bridge, {typeIndex, key}, &gap, event, batchIndex});
    }
    plan.erase(plan.begin() + static_cast<std::ptrdiff_t>(before), plan.end());
}

std::vector<Participant::Utterance> Participant::planLeaveAll() {
    std::vector<Utterance> plan;
    AttributeRef next = *leaveAllAt_;
    leaveAllAt_.reset();
    for (; next.typeIndex < typeCount(); next = {static_cast<std::uint8_t>(next.typeIndex + 1), 0}) {
        Attributes& attributes = attributes_[next.typeIndex];
        for (auto at = attributes.lowerBound(next.key); at != attributes.end(); ++at) {
            const auto [key, attribute] = *at;
            const AttributeRef ref{next.typeIndex, key};
            if (plan.size() == piece) {
                leaveAllAt_ = ref;
                return plan;
            }
            const ApplicantCell cell = step(attribute.applicant, ApplicantEvent::txLA);
            plan.push_back(
                {Utterance::Why::transition, ref, &attribute, eventOf(cell.send, attribute, false)});
        }
    }
    return plan;
}

std::size_t Participant::sendPlan(const std::vector<Utterance>& plan, bool withLeaveAll,
                                  std::size_t maxPdus) {
    std::size_t pdus = 0;
    const auto send = [&](PduWriter& writer) {
        env_.host.send(intf_, writer.finish());
        ++counts_.txPdus;
        return ++pdus < maxPdus;
    };
    const std::size_t capacity = env_.host.capacity(intf_);
    PduWriter writer{env_.application, withLeaveAll, capacity};
    for (std::size_t i = 0; i < plan.size(); ++i) {
        const Utterance& utterance = plan[i];
        if (!utterance.event) continue;
        const Attribute& attribute = *utterance.attribute;
        const AttributeValue& value =
            utterance.why == Utterance::Why::purged ? attribute.heard() : attribute.own();
        if (!writer.add(utterance.ref.typeIndex, *utterance.event, value)) {
            if (!send(writer)) return i;
            writer = PduWriter{env_.application, false, capacity};
            writer.add(utterance.ref.typeIndex, *utterance.event, value);
        }
        ++counts_.txEvents[static_cast<std::size_t>(*utterance.event)];
    }
    if (!writer.empty()) send(writer);
    return plan.size();
}

void Participant::said(const Utterance& utterance, ApplicantEvent why) {
    Attribute& attribute = *utterance.attribute;
    if (utterance.why == Utterance::Why::bridge) return;
    if (utterance.why == Utterance::Why::purged) {
        attribute.mtDue = false;
        return;
    }
    if (why != ApplicantEvent::tx || utterance.event == Event::Lv) attribute.announced = false;
    if (why != ApplicantEvent::txLAF && utterance.event && declares(*utterance.event)) {
        attribute.announced = true;
        attribute.tell();
        // With that the peer has let go of what it held by the other type.
        if (Attribute* other = replaced(utterance.ref); other != nullptr && !other->spokenFor()) {
            other->announced = false;
            other->settle();
            // A LeaveAll has its own say about each attribute, and still needs them all.
            if (why == ApplicantEvent::tx)
                eraseIfIdle({replaces_[utterance.ref.typeIndex], utterance.ref.key}, *other);
        }
    }
    // A LeaveAll took everything off the queue when it began; what is there now came later.
    if (why == ApplicantEvent::tx) attribute.queued = false;
    const Applicant before = attribute.applicant;
    applicantEvent(utterance.ref, attribute, why);
    // After a LeaveAll also what stays in its state: nothing else has been kept of the queue.
    const bool speaks = hasToSpeak(attribute.applicant) || mustAsk(attribute);
    if (why != ApplicantEvent::tx && attribute.applicant == before && speaks) {
        queue(utterance.ref, attribute, patience(attribute.applicant, why));
    }
    attribute.settle();
    eraseIfIdle(utterance.ref, attribute);
}

}  // namespace Mrp
