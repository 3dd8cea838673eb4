#include "Mrp/MrpSm.h"

#include "Runtime/Assert.h"

#include <algorithm>
#include <stdexcept>

namespace Mrp {

namespace {

/// What offers may cost in one turn.
constexpr unsigned offerBudget = turnBudget / 2;
/// Reasons of reports behind those of malformed frames.
constexpr std::uint32_t rangeErrorReason = 100;
constexpr std::uint32_t floodReason = 150;
constexpr std::uint32_t limitReason = 200;  ///< plus two for each attribute type

template <class R>
std::shared_ptr<R> orDefault(std::shared_ptr<R> record) {
    return record ? std::move(record) : std::make_shared<std::remove_const_t<R>>();
}

}  // namespace

MrpSm::MrpSm(Inputs inputs)
    : inputs_{std::move(inputs)},
      application_{inputs_.application},
      loop_{inputs_.environment.loop},
      config_{orDefault(inputs_.mrpConfig)},
      status_{orDefault(inputs_.mrpStatus)},
      attributes_{orDefault(inputs_.attributes)},
      standby_{inputs_.standbyMode},
      random_{inputs_.environment.seed},
      limiter_{inputs_.environment.report},
      periodicSm_{loop_,
                  {.periodic =
                       [this](IntfId intf) {
                           if (auto p = participant(intf)) p->periodic();
                       },
                   .leaveAll =
                       [this](IntfId intf) {
                           if (auto p = participant(intf)) p->leaveAll();
                       }}},
      turns_{loop_, [this](IntfId intf, unsigned most) { servePort(intf, most); }},
      offerTimer_{loop_, [this] { runOffers(); }},
      configReactor_{config_->react([this](const State::Change& change) { configChanged(change.field); })} {
    Runtime::require(application_.application().types.size() <= maxTypes, "too many attribute types");
    periodicSm_.enabledIs(config_->periodicEnabled());
    application_.engine_ = this;
}

MrpSm::~MrpSm() {
    application_.engine_ = nullptr;
    for (const auto& [intf, port] : ports_) {
        if (!port.participant) continue;
        port.participant->stop();
        attributes_->intfDel(intf);
    }
}

void MrpSm::handleStandbyMode() {
    for (const IntfId intf : enabled_) {
        if (standby_) {
            stop(intf);
        } else if (!participant(intf)) {
            start(intf);
            periodicSm_.transmitAllLeaveAll(intf);
        }
    }
}

// --- Ports ---------------------------------------------------------------------------------------

void MrpSm::interfaceEnable(IntfId intf) {
    enabled_.insert(intf);
    if (!standby_ && !participant(intf)) start(intf);
}

void MrpSm::interfaceDisable(IntfId intf) {
    enabled_.erase(intf);
    const auto ending = participant(intf);
    if (!ending) return;
    const auto link = inputs_.ethPhyIntfStatusDir ? inputs_.ethPhyIntfStatusDir->intfStatus(intf) : nullptr;
    if (link && link->linkStatus() == Interface::LinkStatus::linkUp) ending->flush();
    stop(intf);
}

void MrpSm::start(IntfId intf) {
    Port& port = ports_[intf];
    port.participant = std::make_shared<Participant>(
        intf, Participant::Environment{.loop = loop_,
                                       .application = application_.application(),
                                       .config = *config_,
                                       .random = random_,
                                       .trace = inputs_.environment.trace,
                                       .host = *this});
    if (!port.packetPort) {
        port.packetPort = inputs_.environment.ports.open(
            intf, [this, intf](std::span<const std::uint8_t> pdu) { received(intf, pdu); });
    }
    status_->intfIs(intf);
    const std::weak_ptr<const Participant> weak = port.participant;
    attributes_->intfIs(intf)->viewIs({.machines =
                                           [weak] {
                                               const auto shown = weak.lock();
                                               return shown ? shown->machines() : State::Value{};
                                           },
                                       .attributes =
                                           [weak](const State::From& from, std::size_t most) {
                                               const auto shown = weak.lock();
                                               return shown ? shown->attributes(from, most) : State::Object{};
                                           }});
    periodicSm_.intfIs(intf);
}

void MrpSm::stop(IntfId intf) {
    const auto at = ports_.find(intf);
    if (at == ports_.end() || !at->second.participant) return;
    const auto ending = std::exchange(at->second.participant, nullptr);
    ending->stop();
    at->second.inbox.clear();
    attributes_->intfDel(intf);
    periodicSm_.intfDel(intf);
    // A call of the participant or of the packet port may be under way: both end after it.
    later([this, intf, ending] {
        const auto port = ports_.find(intf);
        if (port != ports_.end() && !port->second.participant) ports_.erase(port);
    });
}

std::shared_ptr<Participant> MrpSm::participant(IntfId intf) const {
    const auto at = ports_.find(intf);
    return at == ports_.end() ? nullptr : at->second.participant;
}

// --- Receiving: everybody in turn ----------------------------------------------------------------

void MrpSm::received(IntfId intf, std::span<const std::uint8_t> pdu) {
    const auto at = ports_.find(intf);
    if (at == ports_.end() || !at->second.participant) return;
    Port& port = at->second;
    if (turns_.mayReceive() == 0 || !port.inbox.empty()) return keep(intf, port, pdu);
    const auto receiver = port.participant;
    decode(pdu, application_.application(), direct_.pdu);
    direct_.begun = false;
    direct_.firstTypes = true;
    direct_.firstRefs.clear();
    if (receive(*receiver, direct_, turns_.mayReceive()).done) return;
    direct_.arrived = loop_.now();
    port.inbox.putBack(std::make_unique<Reception>(std::exchange(direct_, {})));
    turns_.standInLine(intf);
}

MrpSm::Received MrpSm::receive(Participant& receiver, Reception& in, unsigned most) {
    unsigned left = most;
    const bool done = receiver.receive(in, left);
    turns_.received(most - left);
    return {done, most - left};
}

void MrpSm::keep(IntfId intf, Port& port, std::span<const std::uint8_t> pdu) {
    if (port.inbox.push(loop_.now(), pdu)) return turns_.standInLine(intf);
    MrpCounts lost;
    lost.droppedPdus = 1;
    count(intf, lost);
    limiter_.report(loop_.now(), intf, floodReason, [&] {
        return Runtime::concat(intf, ": MRPDUs are dropped, they arrive faster than they can be handled");
    });
}

void MrpSm::pausedIs(bool paused) {
    const bool before = turns_.paused();
    turns_.pausedIs(paused);
    if (before == paused || paused) return;
    offerTimer_.armIn(Runtime::Duration{0});
    for (const auto& [intf, port] : ports_) {
        if (port.participant) port.participant->requestOpportunity();
    }
}

void MrpSm::servePort(IntfId intf, unsigned most) {
    const auto at = ports_.find(intf);
    if (at == ports_.end()) return;
    Port& port = at->second;
    // A handler may stop the port, and start it again.
    while (port.participant && !port.inbox.empty() && most > 0) {
        const auto receiver = port.participant;
        auto next = port.inbox.take(application_.application());
        const Received received = receive(*receiver, *next, most);
        if (!received.done) port.inbox.putBack(std::move(next));
        most -= std::min(most, received.cost);
    }
    if (!port.inbox.empty()) turns_.standInLine(intf);
}

bool MrpSm::mayTransmit(IntfId intf) {
    const auto at = ports_.find(intf);
    return turns_.mayTransmit() && (at == ports_.end() || !at->second.inbox.begun());
}

void MrpSm::transmitted(std::size_t attributes) { turns_.transmitted(attributes); }

std::optional<Runtime::Time> MrpSm::backlogSince(IntfId intf) const {
    const auto at = ports_.find(intf);
    return at == ports_.end() ? std::nullopt : at->second.inbox.since();
}

std::size_t MrpSm::capacity(IntfId intf) const {
    const auto at = ports_.find(intf);
    return at != ports_.end() && at->second.packetPort ? at->second.packetPort->capacity() : maxPduLength;
}

void MrpSm::send(IntfId intf, std::span<const std::uint8_t> pdu) {
    const auto at = ports_.find(intf);
    if (at != ports_.end() && at->second.packetPort) at->second.packetPort->send(pdu);
}

// --- Requests ------------------------------------------------------------------------------------

void MrpSm::sendAttribute(const MrpParameters& params) {
    const auto sender = participant(params.intf);
    if (!sender) return;
    AttributeRef ref{.typeIndex = typeIndex(params.attributeType)};
    const AttributeType& t = type(ref);
    const AttributeSlot& slot = application_.outgoing(params.attributeType);
    AttributeValue value;
    std::copy_n(slot.value.begin(), t.valueLength, value.octets.begin());
    if (t.fourPacked) value.declaration = static_cast<std::uint8_t>(slot.declaration & 3U);
    ref.key = t.key(std::span{value.octets}.first(t.valueLength));
    switch (params.request) {
        case requestNew:
        case requestDeclare: {
            log(AttrLogRecord::What::declare, params.intf, ref);
            const bool news = sender->declare(ref, value, params.request == requestNew);
            // A handler that answers each join with the same declaration must not be called for ever.
            if (t.retriesPort && (news || !indicating_)) offerDue(params.intf, ref);
            break;
        }
        case requestWithdraw:
            log(AttrLogRecord::What::withdraw, params.intf, ref);
            sender->withdraw(ref);
            break;
        case requestSeed:
            sender->seed(ref, value);
            break;
        case requestResume:
            log(AttrLogRecord::What::declare, params.intf, ref);
            sender->resume(ref, value);
            break;
        case requestInternalLeave:
            log(AttrLogRecord::What::internalLeave, params.intf, ref);
            sender->forget(ref);
            break;
        default:
            Runtime::assertionFailed("unknown kind of MRP request");
    }
}

void MrpSm::requestOpportunity(IntfId intf) {
    if (const auto sender = participant(intf)) sender->requestOpportunity();
}

void MrpSm::cleanUpIntfDatabase(IntfId intf) {
    if (const auto purged = participant(intf)) purged->purgeAll();
}

void MrpSm::cleanUpIntfDatabaseAttribute(IntfId intf, std::uint8_t type, std::uint64_t key) {
    if (const auto purged = participant(intf)) purged->purge({typeIndex(type), key});
}

bool MrpSm::attributeHeld(IntfId intf, std::uint8_t type, std::uint64_t key) const {
    const auto holder = participant(intf);
    return holder && holder->held({typeIndex(type), key});
}

void MrpSm::eachAttribute(IntfId intf,
                          const std::function<void(const AttributeRef&, const Attribute&)>& visit) const {
    if (const auto port = participant(intf)) port->eachAttribute(visit);
}

std::uint8_t MrpSm::typeIndex(std::uint8_t type) const {
    const auto& types = application_.application().types;
    const auto at = std::ranges::find(types, type, &AttributeType::type);
    Runtime::require(at != types.end(), "unknown attribute type in an MRP request");
    return static_cast<std::uint8_t>(at - types.begin());
}

// --- Indications ---------------------------------------------------------------------------------

template <class F>
Participant::Outcome MrpSm::indicate(IntfId intf, const AttributeRef& ref, const AttributeValue& value,
                                     bool isNew, F&& handler) {
    const AttributeType& t = type(ref);
    AttributeSlot& slot = application_.incoming(t.type);
    slot = {.value = value.octets, .declaration = value.declaration, .isNew = isNew};
    const bool outer = std::exchange(indicating_, true);
    if (!outer) (void)takeCost();  // what was done before is not this indication's
    Participant::Outcome outcome = Participant::Outcome::rangeError;
    try {
        outcome = handler(MrpParameters{.intf = intf, .attributeType = t.type});
    } catch (const std::range_error& error) {
        report(intf, rangeErrorReason + t.type,
               Runtime::concat("MRP attribute of type ", unsigned{t.type}, " key ", State::hexText(ref.key),
                               " refused: ", error.what()));
    }
    indicating_ = outer;
    return outcome;
}

Participant::Outcome MrpSm::joinIndication(IntfId intf, const AttributeRef& ref, const AttributeValue& value,
                                           bool isNew) {
    log(AttrLogRecord::What::join, intf, ref);
    // This is the offer that was due.
    offers_.erase(intf, ref);
    return indicate(intf, ref, value, isNew, [this](const MrpParameters& params) {
        return application_.mrpJoinIndication(params) == 0 ? Participant::Outcome::accepted
                                                           : Participant::Outcome::refused;
    });
}

Participant::Outcome MrpSm::leaveIndication(IntfId intf, const AttributeRef& ref,
                                            const AttributeValue& value) {
    log(AttrLogRecord::What::leave, intf, ref);
    return indicate(intf, ref, value, false, [this](const MrpParameters& params) {
        application_.mrpLeaveIndication(params);
        return Participant::Outcome::accepted;
    });
}

// --- What was refused is offered again -----------------------------------------------------------

void MrpSm::registrationEnded(std::uint64_t key) {
    const auto types = static_cast<std::uint8_t>(application_.application().types.size());
    for (const auto& [intf, port] : ports_) {
        if (!port.participant || port.participant->refused().empty()) continue;
        for (std::uint8_t i = 0; i < types; ++i) {
            const AttributeRef ref{i, key};
            if (port.participant->refused(ref)) offers_.add({intf, ref});
        }
    }
    if (!offers_.empty()) offerTimer_.armIn(Runtime::Duration{0});
}

void MrpSm::portOpened(IntfId intf) {
    const auto port = participant(intf);
    if (!port || port->refused().empty()) return;
    // What is refused from now on was judged by how things are now.
    for (const AttributeRef& ref : port->refused()) offers_.add({intf, ref});
    application_.mrpSpend(static_cast<unsigned>(port->refused().size()));
    offerTimer_.armIn(Runtime::Duration{0});
}

void MrpSm::offerDue(IntfId intf, const AttributeRef& ref) {
    const auto port = participant(intf);
    if (!port || !port->registered(ref)) return;
    offers_.add({intf, ref, true});
    offerTimer_.armIn(Runtime::Duration{0});
}

void MrpSm::runOffers() {
    for (unsigned left = offerBudget; !turns_.paused() && left > 0 && !offers_.empty();) {
        const Offers::Offer offer = offers_.take();
        const auto port = participant(offer.intf);
        unsigned cost = 1;
        if (port && (offer.always || port->refused(offer.ref))) {
            port->offerAgain(offer.ref);
            cost += indicationCost + takeCost();
        }
        left -= std::min(left, cost);
    }
    if (!turns_.paused() && !offers_.empty()) offerTimer_.armIn(Runtime::Duration{0});
}

void MrpSm::later(std::function<void()> task) {
    loop_.post([alive = std::weak_ptr<bool>{alive_}, task = std::move(task)] {
        if (!alive.expired()) task();
    });
}

// --- Records and reports -------------------------------------------------------------------------

void MrpSm::count(IntfId intf, const MrpCounts& more) { status_->intfIs(intf)->add(more); }

void MrpSm::configChanged(std::string_view field) {
    if (field == State::fieldName<MrpConfig>("periodicEnabled"))
        periodicSm_.enabledIs(config_->periodicEnabled());
    for (const auto& [intf, port] : ports_) {
        if (!port.participant) continue;
        if (field == State::fieldName<MrpConfig>("leaveTime")) port.participant->leaveTimeChanged();
        if (field == State::fieldName<MrpConfig>("leaveAllTime")) port.participant->leaveAllTimeChanged();
    }
}

void MrpSm::log(AttrLogRecord::What what, IntfId intf, const AttributeRef& ref) {
    if (attrLog_ == nullptr) return;
    attrLog_->record(
        {.time = loop_.now(), .intf = intf, .what = what, .attributeType = type(ref).type, .key = ref.key});
}

void MrpSm::report(IntfId intf, std::uint32_t reason, const std::string& line) {
    limiter_.report(loop_.now(), intf, reason, [&] { return Runtime::concat(intf, ": ", line); });
}

void MrpSm::reportFlaw(IntfId intf, const Flaw& flaw) {
    limiter_.report(loop_.now(), intf, static_cast<std::uint32_t>(flaw.reason), [&] {
        return Runtime::concat(intf, ": malformed MRPDU: ", describe(flaw.reason), " at octet ", flaw.offset);
    });
}

void MrpSm::reportLimit(IntfId intf, std::uint8_t type, bool reached) {
    report(intf, limitReason + 2U * type + (reached ? 0U : 1U),
           Runtime::concat("MRP attributes of type ", unsigned{type},
                           reached ? ": no more are registered, the limit of "
                                   : ": registered again, fewer than the limit of ",
                           config_->maxAttributesPerType(), reached ? " is reached" : ""));
}

}  // namespace Mrp
