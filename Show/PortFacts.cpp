#include "Show/PortFacts.h"

#include "Msrp/types/Attributes.h"

#include <set>
#include <utility>

namespace Show {

using Msrp::SrClassId;
using Msrp::U64;
using State::Value;

namespace {

template <class E>
E enumOf(const Value& value, E absent) {
    return State::Codec<E>::decode(value).value_or(absent);
}

}  // namespace

char classLetter(SrClassId srClass) { return srClass == SrClassId::SrClassA ? 'A' : 'B'; }

std::string classField(SrClassId srClass, std::string_view rest) {
    return std::string{"srClass"} + classLetter(srClass) + std::string{rest};
}

SrClassId classNamed(std::string_view srClass) {
    return srClass == "SrClassA" ? SrClassId::SrClassA : SrClassId::SrClassB;
}

Msrp::U8 classPriority(const Snapshot& snapshot, SrClassId srClass) {
    return static_cast<Msrp::U8>(
        numberOf(at(snapshot.record("msrp/cliConfig"), {classField(srClass, "Priority")})));
}

Msrp::SrClassState classState(const Snapshot& snapshot, std::string_view port, SrClassId srClass) {
    return enumOf(
        at(snapshot.record("msrp/status"), {"intfStatus", port, "srClassState", State::enumText(srClass)}),
        Msrp::SrClassState::NotSupported);
}

Msrp::U16 streamVlan(const Snapshot& snapshot, std::string_view port) {
    const Value& config = snapshot.record("msrp/cliConfig");
    const U64 own = numberOf(at(config, {"srPvid", port}));
    return static_cast<Msrp::U16>(own != 0 ? own : numberOf(at(config, {"defaultSrPvid"})));
}

Msrp::VlanFacts vlanFacts(const Snapshot& snapshot, std::string_view port, U64 vlan) {
    const std::string id = std::to_string(vlan);
    const Value& config = at(snapshot.record("bridging/config"), {"vlanConfig", id});
    const Value& member = at(config, {"intf", port});
    const Value& topologies = snapshot.record("bridging/topology/config");
    const std::string tree = textOf(at(topologies, {"vlanTopology", id}));
    const bool forwards =
        textOf(at(topologies, {"topoConfig", tree, "topoPortConfig", port, "state"})) == "forwarding";
    const bool noTree = textOf(at(snapshot.record("stp/status"), {"mode"})) == "None";
    return {.configured = !config.isNull(),
            .member = !member.isNull(),
            .forwarding = noTree || forwards,
            .tagged = isTrue(at(member, {"tagged"}))};
}

Msrp::EgressFacts egressFacts(const Snapshot& snapshot, std::string_view port, SrClassId srClass, U64 vlan,
                              U64 kbps) {
    const bool refused = !at(snapshot.record("switch/refusals"), {"port", port}).isNull();
    return {.state = classState(snapshot, port, srClass),
            .vlan = vlanFacts(snapshot, port, vlan),
            .shapingRefused = kbps != 0 && refused};
}

Msrp::AdmissionRequest portShare(const Snapshot& snapshot, std::string_view port) {
    const Value& status = at(snapshot.record("msrp/status"), {"intfStatus", port});
    const Value& config = snapshot.record("msrp/cliConfig");
    const auto speed =
        enumOf(at(snapshot.record("interface/status/eth/phy/all"), {"intfStatus", port, "speedEnum"}),
               Interface::Speed::speedUnknown);
    return {.link = Msrp::linkSpeedKbps(speed),
            .percentA = numberOf(at(config, {"srClassABandwidthPercent"})),
            .percentB = numberOf(at(config, {"srClassBBandwidthPercent"})),
            .allocatedA = numberOf(at(status, {"classBandwidthAllocated", "SrClassA"})),
            .allocatedB = numberOf(at(status, {"classBandwidthAllocated", "SrClassB"}))};
}

Msrp::AdmissionRequest admissionRequest(const Snapshot& snapshot, std::string_view port, SrClassId srClass,
                                        U64 kbps) {
    Msrp::AdmissionRequest request = portShare(snapshot, port);
    request.srClass = srClass;
    request.needed = kbps;
    return request;
}

std::string attributePath(std::string_view port, Msrp::U8 type, U64 key) {
    return "mrp/attributes/intf/" + std::string{port} + "/attribute/" + std::to_string(type) + '/' +
           State::hexText(key);
}

std::string domainPath(std::string_view port, SrClassId srClass) {
    return attributePath(port, Msrp::typeDomain, Msrp::number(srClass));
}

std::optional<PeerDomain> peerDomain(const Snapshot& snapshot, std::string_view port, SrClassId srClass) {
    const Value& attribute = snapshot.record(domainPath(port, srClass));
    const auto fields = State::parseHex("0x" + textOf(at(attribute, {"registered", "value"})));
    if (!fields) return std::nullopt;
    return PeerDomain{.priority = *fields >> 16 & 0xff,
                      .vlan = *fields & 0xffff,
                      .age = State::Codec<double>::decode(at(attribute, {"age"})).value_or(-1.0)};
}

bool inGroup(const Snapshot& snapshot, const Value& stream, std::string_view port) {
    // Another stream may have the group of that address.
    return !textOf(at(stream, {"ethGroup"})).empty() &&
           isTrue(at(snapshot.record("bridging/input/config/msrp"),
                     {"fdbConfig", std::to_string(numberOf(at(stream, {"vlanId"}))), "ethGroup",
                      textOf(at(stream, {"macDa"})), "intf", port}));
}

std::vector<PortStream> portStreams(const Snapshot& snapshot, const std::string& port) {
    // Looked up for each stream of thousands, so by VLAN and address.
    std::set<std::pair<U64, std::string_view>> groups;
    for (const auto& [vlan, fdb] :
         membersOf(at(snapshot.record("bridging/input/config/msrp"), {"fdbConfig"}))) {
        for (const auto& [address, group] : membersOf(at(fdb, {"ethGroup"}))) {
            if (isTrue(at(group, {"intf", port})))
                groups.emplace(State::parseDecimal(vlan, 4094).value_or(0), address);
        }
    }
    std::vector<PortStream> found;
    for (const auto& [key, stream] : membersOf(at(snapshot.record("msrp/status"), {"registeredStreams"}))) {
        const auto id = State::parseHex(key);
        const std::string from = textOf(at(stream, {"ingressIntf"}));
        if (!id || from.empty() || from == port) continue;
        const auto listener = enumOf(at(stream, {"listenerStateOrig", port}), Msrp::ListenerState::Ignore);
        const bool advertised = textOf(at(stream, {"talkerState", from})) == "Advertise" &&
                                numberOf(at(stream, {"talkerFailureCode", from})) == 0;
        const U64 vlan = numberOf(at(stream, {"vlanId"}));
        const std::string group = textOf(at(stream, {"ethGroup"}));
        const PortStream one{.id = *id,
                             .srClass = classNamed(textOf(at(stream, {"srClass"}))),
                             .kbps = numberOf(at(stream, {"bandwidth"})),
                             .vlan = vlan,
                             .from = from,
                             .reserved = !group.empty() && groups.contains({vlan, group}),
                             .asked = advertised && Msrp::wantsStream(listener)};
        if (one.reserved || one.asked) found.push_back(one);
    }
    return found;
}

}  // namespace Show
