/// What must always hold of a bridge's forwarding, queues and declarations, whatever its peers say.
#pragma once

#include "Mrp/MrpSm.h"
#include "Msrp/bandwidth/Admission.h"
#include "Sim/Bridge.h"
#include "fuzz/Check.h"

#include <cstdint>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace Fuzz {

/// Groups are what admission made of them, allocations are their sum, and queues have their rates.
inline void checkForwarding(Sim::Bridge& bridge) {
    const Msrp::MsrpSm& sm = *bridge.agent().msrpSm();
    std::map<std::pair<IntfId, Msrp::SrClassId>, std::uint64_t> admitted;
    std::set<const void*> groups;
    for (const auto& [id, stream] : sm.streamList()) {
        const IntfId ingress = stream->ingressIntf();
        const auto group = stream->ethGroup();
        check(group || !ingress || sm.getTalkerState(*stream, ingress) != Msrp::TalkerState::Advertise ||
                  stream->talkerFailureCode(ingress) != Msrp::TalkerFailureCode::noFailure,
              "a sound stream without a group: ", id);
        if (!group) continue;
        check(groups.insert(group.get()).second, "two streams share a group: ", id);
        check(!group->intf().empty(), "an empty group: ", id);
        for (const auto& [intf, member] : group->intf()) {
            check(member && bridge.status->intfStatus(intf), "a port without MSRP in a group: ", id);
            if (intf == ingress) {
                check(group->intf().size() == 1, "the talker's port beside listeners: ", id);
                continue;
            }
            check(Msrp::wantsStream(stream->listenerState(intf)), "a group member that did not ask: ", id);
            check(sm.getTalkerState(*stream, intf) == Msrp::TalkerState::Advertise,
                  "a group member without an advertise: ", id);
            admitted[{intf, stream->srClass()}] += stream->bandwidth();
        }
    }
    std::size_t recorded = 0;
    bridge.groupConfig->fdbConfig().each([&](VlanId, const auto& fdb) { recorded += fdb.ethGroup().size(); });
    check(recorded == groups.size(), "a group without a stream");

    const double factor = bridge.cliConfig->shapeRateFactor();
    bridge.status->intfStatus().each([&](IntfId intf, const Msrp::IntfStatus& status) {
        const auto config = bridge.queues->intfConfig(intf);
        for (const Msrp::SrClassId srClass : Msrp::bothClasses) {
            const std::uint64_t allocated = status.classBandwidthAllocated(srClass);
            check(allocated == admitted[{intf, srClass}], "allocated ", allocated, " kbit/s where ",
                  admitted[{intf, srClass}], " are admitted");
            const auto queue = config ? config->txQueueConfig(sm.getAvbQueue(srClass)) : nullptr;
            check((queue != nullptr) == (allocated != 0), "a queue without a reservation, or the reverse");
            check(!queue || queue->shapeRate().rate.value() ==
                                static_cast<std::uint64_t>(static_cast<double>(allocated) * factor),
                  "a queue with the wrong rate");
        }
    });
    bridge.queues->intfConfig().each([&](IntfId intf, const auto&) {
        check(bridge.status->intfStatus(intf) != nullptr, "queues of a port without MSRP");
    });
}

/// Type, key, and a Talker Failed's code or a Listener's state.
using Declarations = std::set<std::tuple<std::uint8_t, std::uint64_t, unsigned>>;

/// What the agent believes it declares on a port, but for the domains.
inline Declarations believed(Sim::Bridge& bridge, IntfId intf) {
    Declarations all;
    const Msrp::MsrpSm& sm = *bridge.agent().msrpSm();
    for (const auto& [id, stream] : sm.streamList()) {
        if (intf == stream->ingressIntf()) {
            const Msrp::ListenerState state = stream->listenerState(intf);
            if (state != Msrp::ListenerState::Ignore) all.emplace(Msrp::typeListener, id, unsigned(state));
            continue;
        }
        const Msrp::TalkerState state = sm.getTalkerState(*stream, intf);
        if (state == Msrp::TalkerState::Advertise) all.emplace(Msrp::typeTalkerAdvertise, id, 0U);
        if (state == Msrp::TalkerState::Failed)
            all.emplace(Msrp::typeTalkerFailed, id, unsigned(stream->talkerFailureCode(intf)));
    }
    return all;
}

/// What the port's applicants declare.
inline Declarations applied(Sim::Bridge& bridge, IntfId intf) {
    Declarations all;
    const auto add = [&](const Mrp::AttributeRef& ref, const Mrp::Attribute& attribute) {
        const std::uint8_t type = Msrp::application().types[ref.typeIndex].type;
        if (!Mrp::isMember(attribute.applicant) || type == Msrp::typeDomain) return;
        unsigned detail = 0;
        if (type == Msrp::typeTalkerFailed)
            detail = unsigned(Msrp::MsrpTalkerFailedAttribute{attribute.own().octets}.failureCode());
        if (type == Msrp::typeListener) detail = attribute.own().declaration;
        all.emplace(type, ref.key, detail);
    };
    bridge.agent().mrpSm()->eachAttribute(intf, add);
    return all;
}

inline void checkDeclarations(Sim::Bridge& bridge, IntfId intf) {
    check(applied(bridge, intf) == believed(bridge, intf), "the agent declares on ", intf,
          " something else than it believes");
}

}  // namespace Fuzz
