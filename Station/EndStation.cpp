#include "Station/EndStation.h"

#include <algorithm>
#include <utility>

namespace Station {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Msrp::TalkerState;
using Msrp::U32;
using Msrp::U64;
using Msrp::U8;

namespace {

template <std::size_t size>
TalkerEvent heard(const Msrp::TalkerRecord<size>& attribute, TalkerState state) {
    return {.streamId = attribute.streamId(),
            .state = state,
            .macDa = attribute.macDa(),
            .vlan = attribute.vlanId(),
            .priority = attribute.dataFramePriority(),
            .maxFrameSize = attribute.maxFrameSize(),
            .maxIntervalFrames = attribute.maxIntervalFrames(),
            .rank = attribute.rank(),
            .latency = attribute.accumulatedLatency()};
}

TalkerEvent heard(const Msrp::MsrpTalkerFailedAttribute& attribute) {
    TalkerEvent event = heard(attribute, TalkerState::Failed);
    event.failureCode = attribute.failureCode();
    event.failedBridgeId = attribute.failedBridgeId();
    return event;
}

/// Keeps what was heard; true when that is news.
template <class Key, class E>
bool keep(std::map<Key, E>& all, Key key, const E& event) {
    const auto [at, added] = all.try_emplace(key, event);
    if (!added && at->second == event) return false;
    at->second = event;
    return true;
}

/// A bridge tells a station of the streams of all its ports together, which may be many times what each of
/// these may have.
std::shared_ptr<const Mrp::MrpConfig> roomyConfig() {
    auto config = std::make_shared<Mrp::MrpConfig>();
    config->maxAttributesPerTypeIs(200'000);
    return config;
}

}  // namespace

EndStation::EndStation(IntfId intf, Environment environment)
    : MrpLib{Msrp::application()},
      intf_{intf},
      environment_{std::move(environment)},
      domains_{{SrClassId::SrClassA, {.priority = 3}}, {SrClassId::SrClassB, {.priority = 2}}},
      engine_{Mrp::Inputs{.brConfig = nullptr,
                          .application = *this,
                          .mrpConfig = roomyConfig(),
                          .mrpStatus = nullptr,
                          .attributes = nullptr,
                          .stpStatus = nullptr,
                          .topoConfig = nullptr,
                          .ethPhyIntfStatusDir = environment_.links,
                          .environment = {.loop = environment_.loop,
                                          .ports = environment_.ports,
                                          .trace = environment_.trace,
                                          .report =
                                              [this](IntfId, const std::string& line) {
                                                  if (environment_.report) environment_.report(line);
                                              },
                                          .seed = environment_.seed},
                          .standbyMode = false}},
      linkReactor_{environment_.links->watch([this](const State::Change&) { followLink(); })} {
    followLink();
}

// --- What the station wants

void EndStation::domainIs(SrClassId srClass, Domain domain) {
    domains_[srClass] = domain;
    sendDomain(srClass, domain, Mrp::requestDeclare);
}

void EndStation::talk(const TalkerSpec& spec) {
    talks_[spec.streamId] = spec;
    sendTalker(spec, Mrp::requestDeclare);
}

void EndStation::stopTalking(U64 streamId) {
    if (const auto stopped = talks_.extract(streamId)) sendTalker(stopped.mapped(), Mrp::requestWithdraw);
}

void EndStation::listen(U64 streamId, std::optional<ListenerState> fixed) {
    listens_[streamId] = fixed;
    sendListener(streamId, Mrp::requestDeclare);
}

void EndStation::stopListening(U64 streamId) {
    if (!listens_.contains(streamId)) return;
    sendListener(streamId, Mrp::requestWithdraw);
    listens_.erase(streamId);
}

void EndStation::leave() {
    linkReactor_ = {};
    for (const auto& [id, spec] : talks_) sendTalker(spec, Mrp::requestWithdraw);
    for (const auto& [id, fixed] : listens_) sendListener(id, Mrp::requestWithdraw);
    for (const auto& [srClass, domain] : domains_) sendDomain(srClass, domain, Mrp::requestWithdraw);
    mrpInterfaceDisable(intf_);
}

// --- The link

void EndStation::followLink() {
    const auto status = environment_.links->intfStatus(intf_);
    const bool up = status && status->linkStatus() == Interface::LinkStatus::linkUp;
    if (std::exchange(linkUp_, up) == up) return;
    tell(LinkEvent{up});
    if (!up) {
        mrpInterfaceDisable(intf_);
        forgetHeard();
        return;
    }
    mrpInterfaceEnable(intf_);
    for (const auto& [srClass, domain] : domains_) sendDomain(srClass, domain, Mrp::requestDeclare);
    for (const auto& [id, spec] : talks_) sendTalker(spec, Mrp::requestDeclare);
    for (const auto& [id, fixed] : listens_) sendListener(id, Mrp::requestDeclare);
}

void EndStation::forgetHeard() {
    for (const auto& [id, talker] : std::exchange(heardTalkers_, {})) tell(TalkerEvent{.streamId = id});
    for (const auto& [id, listener] : std::exchange(heardListeners_, {})) tell(ListenerEvent{.streamId = id});
    for (const auto& [srClass, domain] : std::exchange(heardDomains_, {}))
        tell(DomainEvent{.srClass = srClass});
}

// --- Requests

void EndStation::request(U8 type, std::span<const U8> value, U8 kind, U32 declaration) {
    Mrp::AttributeSlot& slot = outgoing(type);
    slot = {.value = {}, .declaration = declaration};
    std::ranges::copy(value, slot.value.begin());
    mrpOutIntfQueueEnq(intf_);
    mrpSendAttribute({.intf = intf_, .attributeType = type, .request = kind});
}

void EndStation::sendDomain(SrClassId srClass, Domain domain, U8 kind) {
    request(Msrp::typeDomain, Msrp::MsrpDomainAttribute{srClass, domain.priority, domain.vid}.octets(), kind);
}

void EndStation::sendTalker(const TalkerSpec& spec, U8 kind) {
    Msrp::MsrpTalkerAdvertiseAttribute attribute;
    attribute.streamIdIs(spec.streamId);
    attribute.macDaIs(spec.macDa);
    attribute.vlanIdIs(spec.vlan);
    attribute.maxFrameSizeIs(spec.maxFrameSize);
    attribute.maxIntervalFramesIs(spec.maxIntervalFrames);
    attribute.priorityAndRankIs(Msrp::PriorityAndRank::create(spec.priority, spec.rank));
    attribute.accumulatedLatencyIs(spec.latency);
    request(Msrp::typeTalkerAdvertise, attribute.octets(), kind);
}

void EndStation::sendListener(U64 streamId, U8 kind) {
    const auto talker = heardTalkers_.find(streamId);
    const bool advertised = talker != heardTalkers_.end() && talker->second.state == TalkerState::Advertise;
    const ListenerState state =
        listens_.at(streamId).value_or(advertised ? ListenerState::Ready : ListenerState::AskingFailed);
    request(Msrp::typeListener, Msrp::MsrpListenerAttribute{streamId, state}.octets(), kind,
            Msrp::number(state));
}

// --- Indications

const std::type_info& EndStation::fwkType() const { return typeid(EndStation); }

std::uint8_t EndStation::mrpJoinIndication(const Mrp::MrpParameters& params) {
    const Mrp::AttributeSlot& slot = incoming(params.attributeType);
    switch (params.attributeType) {
        case Msrp::typeTalkerAdvertise:
            return talkerJoined(params.attributeType, heard(Msrp::MsrpTalkerAdvertiseAttribute{slot.value},
                                                            TalkerState::Advertise));
        case Msrp::typeTalkerFailed:
            return talkerJoined(params.attributeType, heard(Msrp::MsrpTalkerFailedAttribute{slot.value}));
        case Msrp::typeListener:
            listenerJoined({slot.value, slot.declaration});
            break;
        case Msrp::typeDomain:
            domainJoined(Msrp::MsrpDomainAttribute{slot.value});
            break;
        default:
            break;
    }
    return 0;
}

void EndStation::mrpLeaveIndication(const Mrp::MrpParameters& params) {
    const Mrp::AttributeSlot& slot = incoming(params.attributeType);
    switch (params.attributeType) {
        case Msrp::typeTalkerAdvertise:
            talkerLeft(Msrp::MsrpTalkerAdvertiseAttribute{slot.value}.streamId(), TalkerState::Advertise);
            break;
        case Msrp::typeTalkerFailed:
            talkerLeft(Msrp::MsrpTalkerFailedAttribute{slot.value}.streamId(), TalkerState::Failed);
            break;
        case Msrp::typeListener:
            listenerLeft(Msrp::MsrpListenerAttribute{slot.value, 0}.streamId());
            break;
        case Msrp::typeDomain:
            domainLeft(Msrp::MsrpDomainAttribute{slot.value}.srClassId());
            break;
        default:
            break;
    }
}

std::uint8_t EndStation::talkerJoined(U8 type, const TalkerEvent& talker) {
    // Somebody else uses the id of a stream of ours: nothing that we could listen to.
    if (talks_.contains(talker.streamId)) return 1;
    const auto before = heardTalkers_.find(talker.streamId);
    if (before != heardTalkers_.end() && before->second.state != talker.state) {
        // The other kind of talker declaration is replaced, not left (35.2.6).
        const U8 other =
            type == Msrp::typeTalkerAdvertise ? Msrp::typeTalkerFailed : Msrp::typeTalkerAdvertise;
        request(other, std::span{incoming(type).value}.first(8), Mrp::requestInternalLeave);
    }
    if (!keep(heardTalkers_, talker.streamId, talker)) return 0;
    if (listens_.contains(talker.streamId)) sendListener(talker.streamId, Mrp::requestDeclare);
    tell(talker);
    return 0;
}

void EndStation::talkerLeft(U64 streamId, TalkerState state) {
    const auto talker = heardTalkers_.find(streamId);
    // The leave of a kind that was replaced says nothing.
    if (talker == heardTalkers_.end() || talker->second.state != state) return;
    heardTalkers_.erase(talker);
    if (listens_.contains(streamId)) sendListener(streamId, Mrp::requestDeclare);
    tell(TalkerEvent{.streamId = streamId});
}

void EndStation::listenerJoined(const Msrp::MsrpListenerAttribute& attribute) {
    const ListenerEvent event{
        .streamId = attribute.streamId(), .present = true, .state = attribute.listenerState()};
    if (keep(heardListeners_, event.streamId, event)) tell(event);
}

void EndStation::listenerLeft(U64 streamId) {
    if (heardListeners_.erase(streamId) != 0) tell(ListenerEvent{.streamId = streamId});
}

void EndStation::domainJoined(const Msrp::MsrpDomainAttribute& attribute) {
    const DomainEvent event{.srClass = attribute.srClassId(),
                            .present = true,
                            .priority = attribute.srClassPriority(),
                            .vid = attribute.srClassVid()};
    if (keep(heardDomains_, event.srClass, event)) tell(event);
}

void EndStation::domainLeft(SrClassId srClass) {
    if (heardDomains_.erase(srClass) != 0) tell(DomainEvent{.srClass = srClass});
}

}  // namespace Station
