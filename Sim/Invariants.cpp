#include "Sim/Invariants.h"

#include "Mrp/MrpSm.h"
#include "Msrp/bandwidth/Admission.h"
#include "Runtime/Text.h"

#include <map>
#include <utility>

namespace Sim {

namespace {

using Msrp::ListenerState;
using Msrp::SrClassId;
using Msrp::TalkerState;
using Runtime::concat;

using Admitted = std::map<std::pair<IntfId, SrClassId>, std::uint64_t>;

/// Of one stream; adds what it has been given to `admitted`.
std::string streamFault(const Bridge& bridge, const Msrp::MsrpSm& sm, const Msrp::StreamData& stream,
                        Admitted& admitted) {
    const std::string id = State::hexText(stream.streamId());
    const IntfId ingress = stream.ingressIntf();
    const auto& group = stream.ethGroup();
    if (!group) {
        const bool sound = ingress && sm.getTalkerState(stream, ingress) == TalkerState::Advertise &&
                           stream.talkerFailureCode(ingress) == Msrp::TalkerFailureCode::noFailure;
        return sound ? concat("a sound stream without a group: ", id) : std::string{};
    }
    if (group->intf().empty()) return concat("an empty group: ", id);
    for (const auto& [intf, member] : group->intf()) {
        const std::string where = concat(id, " on ", intf);
        if (!member || !bridge.status->intfStatus().contains(intf))
            return concat("a port without MSRP in a group: ", where);
        if (intf == ingress) {
            if (group->intf().size() != 1) return concat("the talker's port beside listeners: ", where);
            continue;
        }
        if (!Msrp::wantsStream(stream.listenerState(intf)))
            return concat("a group member that did not ask: ", where);
        if (sm.getTalkerState(stream, intf) != TalkerState::Advertise)
            return concat("a group member without an advertise: ", where);
        admitted[{intf, stream.srClass()}] += stream.bandwidth();
    }
    return {};
}

std::string portFault(const Bridge& bridge, const Msrp::MsrpSm& sm, IntfId intf,
                      const Msrp::IntfStatus& status, Admitted& admitted) {
    const auto config = bridge.queues->intfConfig(intf);
    for (const SrClassId srClass : Msrp::bothClasses) {
        const std::uint64_t allocated = status.classBandwidthAllocated(srClass);
        const std::uint64_t sum = admitted[{intf, srClass}];
        if (allocated != sum)
            return concat("allocated ", allocated, " kbit/s where ", sum, " are admitted on ", intf);
        const auto queue = config ? config->txQueueConfig(sm.getAvbQueue(srClass)) : nullptr;
        if ((queue != nullptr) != (allocated != 0 && !bridge.cliConfig->shapingDisabled()))
            return concat("a queue without a reservation, or the reverse, on ", intf);
        const double rate = static_cast<double>(allocated) * bridge.cliConfig->shapeRateFactor();
        if (queue && queue->shapeRate().rate.value() != static_cast<std::uint64_t>(rate))
            return concat("a queue with the wrong rate on ", intf);
    }
    return {};
}

}  // namespace

std::string forwardingFault(Bridge& bridge) {
    const Msrp::MsrpSm& sm = *bridge.agent().msrpSm();
    Admitted admitted;
    std::set<const void*> groups;
    for (const auto& [id, stream] : sm.streamList()) {
        if (std::string fault = streamFault(bridge, sm, *stream, admitted); !fault.empty()) return fault;
        const void* group = stream->ethGroup().get();
        if (group != nullptr && !groups.insert(group).second)
            return concat("two streams share a group: ", State::hexText(id));
    }
    std::size_t recorded = 0;
    bridge.groupConfig->fdbConfig().each(
        [&](VlanId, const Bridging::Input::FdbConfig& fdb) { recorded += fdb.ethGroup().size(); });
    if (recorded != groups.size()) return "a group without a stream";
    std::string fault;
    bridge.status->intfStatus().each([&](IntfId intf, const Msrp::IntfStatus& status) {
        if (fault.empty()) fault = portFault(bridge, sm, intf, status, admitted);
    });
    bridge.queues->intfConfig().each([&](IntfId intf, const auto&) {
        if (fault.empty() && !bridge.status->intfStatus().contains(intf))
            fault = concat("queues of a port without MSRP: ", intf);
    });
    return fault;
}

std::string censusFault(const Bridge& bridge) {
    Msrp::Census census;
    bridge.status->registeredStreams().each(
        [&](std::uint64_t, const Msrp::StreamData& stream) { census.add(Msrp::streamCase(stream)); });
    return census.value() == bridge.census->value() ? "" : "a census that is not true";
}

Declarations believed(Bridge& bridge, IntfId intf) {
    Declarations all;
    const Msrp::MsrpSm& sm = *bridge.agent().msrpSm();
    for (const auto& [id, stream] : sm.streamList()) {
        if (intf == stream->ingressIntf()) {
            const ListenerState state = stream->listenerState(intf);
            if (state != ListenerState::Ignore) all.insert({Msrp::typeListener, id, Msrp::number(state)});
            continue;
        }
        const TalkerState state = sm.getTalkerState(*stream, intf);
        if (state == TalkerState::Advertise) all.insert({Msrp::typeTalkerAdvertise, id, 0});
        if (state == TalkerState::Failed)
            all.insert({Msrp::typeTalkerFailed, id, Msrp::number(stream->talkerFailureCode(intf))});
    }
    return all;
}

Declarations applied(Bridge& bridge, IntfId intf) {
    Declarations all;
    bridge.agent().mrpSm()->eachAttribute(
        intf, [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
            const std::uint8_t type = Msrp::application().types[ref.typeIndex].type;
            if (!Mrp::isMember(attribute.applicant) || type == Msrp::typeDomain) return;
            unsigned detail = 0;
            if (type == Msrp::typeTalkerFailed)
                detail = Msrp::number(Msrp::MsrpTalkerFailedAttribute{attribute.own().octets}.failureCode());
            if (type == Msrp::typeListener) detail = attribute.own().declaration;
            all.insert({type, ref.key, detail});
        });
    return all;
}

std::string difference(const Declarations& have, const Declarations& want) {
    std::string out;
    const auto tell = [&out](const char* what, const Declaration& d) {
        out += concat(out.empty() ? "" : "; ", what, " type ", unsigned{d.type}, " key ",
                      State::hexText(d.key), " detail ", d.detail);
    };
    for (const Declaration& d : have) {
        if (!want.contains(d)) tell("too much:", d);
    }
    for (const Declaration& d : want) {
        if (!have.contains(d)) tell("lacks:", d);
    }
    return out;
}

}  // namespace Sim
