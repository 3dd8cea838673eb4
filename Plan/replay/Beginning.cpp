#include "Plan/replay/Beginning.h"

#include "Plan/Report.h"
#include "Plan/replay/Declared.h"

#include <algorithm>
#include <array>

namespace Plan {

namespace {

struct PortBeginning {
    std::array<std::set<AttributeName>, 2> declared{};  ///< by the peers, and by the bridge
    bool middle = false;
    std::optional<Runtime::Duration> leaveAll{};
};

/// Whether the event tells of something that was before.
bool tellsOfBefore(const PortBeginning& port, bool sent, const Mrp::DecodedEvent& event) {
    const auto has = [&](bool whose) {
        const auto& names = port.declared[whose ? 1 : 0];
        return names.size() >= Declared::most || names.contains(nameOf(event));
    };
    using enum Mrp::Event;
    if (event.event == JoinIn || event.event == In) return !has(!sent);
    return event.event == Lv && !has(sent);
}

}  // namespace

Beginning beginningOf(const Traffic& traffic, Runtime::Duration answer) {
    Beginning out;
    std::vector<PortBeginning> ports(traffic.ports.size());
    Mrp::DecodedPdu pdu;
    for (const TrafficFrame& frame : traffic.frames) {
        PortBeginning& port = ports[frame.port];
        Mrp::decode(frame.pdu, Msrp::application(), pdu);
        if (!port.leaveAll && pdu.leaveAll.any()) port.leaveAll = frame.elapsed;
        for (const Mrp::DecodedEvent& event : pdu.events) {
            const AttributeName name = nameOf(event);
            const bool declares = Mrp::declares(event.event);
            if (name.kind == Msrp::typeTalkerAdvertise && declares) {
                const auto vlan = Msrp::MsrpTalkerAdvertiseAttribute{event.value.octets}.vlanId();
                if (vlan > 0 && vlan < 4095) out.vlans.insert(vlan);
            }
            if (port.leaveAll) continue;
            port.middle = port.middle || tellsOfBefore(port, frame.sent, event);
            auto& declared = port.declared[frame.sent ? 1 : 0];
            if (declares && declared.size() < Declared::most) declared.insert(name);
        }
    }
    std::string names;
    for (std::size_t p = 0; p < ports.size(); ++p) {
        if (!ports[p].middle) continue;
        names += (names.empty() ? "" : ", ") + traffic.ports[p];
        if (!ports[p].leaveAll) {
            out.known.reset();
        } else if (out.known) {
            out.known = std::max(*out.known, *ports[p].leaveAll + answer);
        }
    }
    if (!names.empty())
        out.notes.push_back(names + ": the capture begins in the middle; " +
                            (out.known ? "compared from " + spanText(*out.known) +
                                             " on, when all had declared everything again"
                                       : "nothing is compared, as no LeaveAll follows there"));
    return out;
}

}  // namespace Plan
