/// What decides about streams at a port, out of the records: the facts that the agent itself decides with, so
/// that its own functions judge them.
#pragma once

#include "Msrp/bandwidth/Admission.h"
#include "Msrp/bandwidth/PortDecision.h"
#include "Show/Snapshot.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Show {

/// "A" or "B"; neither of them is class A.
char classLetter(Msrp::SrClassId srClass);
/// The field of `msrp/cliConfig` that begins with the class's name: "srClassA" and `rest`.
std::string classField(Msrp::SrClassId srClass, std::string_view rest);
/// Class B of any text but "SrClassA".
Msrp::SrClassId classNamed(std::string_view srClass);
Msrp::U8 classPriority(const Snapshot& snapshot, Msrp::SrClassId srClass);
/// `NotSupported` for a port without a status.
Msrp::SrClassState classState(const Snapshot& snapshot, std::string_view port, Msrp::SrClassId srClass);
/// The VLAN that streams use on the port.
Msrp::U16 streamVlan(const Snapshot& snapshot, std::string_view port);

Msrp::VlanFacts vlanFacts(const Snapshot& snapshot, std::string_view port, Msrp::U64 vlan);
/// For a stream of so many kbit/s.
Msrp::EgressFacts egressFacts(const Snapshot& snapshot, std::string_view port, Msrp::SrClassId srClass,
                              Msrp::U64 vlan, Msrp::U64 kbps);
/// The classes' shares of a port and what of them is allocated; without a request.
Msrp::AdmissionRequest portShare(const Snapshot& snapshot, std::string_view port);
/// The same with one.
Msrp::AdmissionRequest admissionRequest(const Snapshot& snapshot, std::string_view port,
                                        Msrp::SrClassId srClass, Msrp::U64 kbps);

/// What the peer's Domain declaration of a class says (IEEE 802.1Q 35.2.2.9).
struct PeerDomain {
    Msrp::U64 priority = 0;
    Msrp::U64 vlan = 0;
    double age = -1.0;  ///< seconds
};
/// Where the protocol engine tells of the peer's Domain, and of one attribute in general.
std::string domainPath(std::string_view port, Msrp::SrClassId srClass);
std::string attributePath(std::string_view port, Msrp::U8 type, Msrp::U64 key);
std::optional<PeerDomain> peerDomain(const Snapshot& snapshot, std::string_view port,
                                     Msrp::SrClassId srClass);

/// One stream on one port to which it is not declared by its talker.
struct PortStream {
    Msrp::U64 id = 0;
    Msrp::SrClassId srClass{};
    Msrp::U64 kbps = 0;
    Msrp::U64 vlan = 0;
    std::string from;       ///< its talker's port
    bool reserved = false;  ///< it holds bandwidth there
    bool asked = false;     ///< a listener there can receive it, and its talker has not failed
};
/// Those that are reserved or asked for, by id.
std::vector<PortStream> portStreams(const Snapshot& snapshot, const std::string& port);
/// Whether the forwarding group of the published stream has the port.
bool inGroup(const Snapshot& snapshot, const State::Value& stream, std::string_view port);

}  // namespace Show
