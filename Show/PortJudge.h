/// What a port has to say to a stream, real or imagined: the first thing that is in its way, from the wire
/// up, found by the functions with which the agent itself decides.
#pragma once

#include "Show/BridgeNames.h"
#include "Show/PortFacts.h"
#include "Show/Verdict.h"

#include <optional>
#include <string>

namespace Show {

/// What of a stream a port looks at.
struct AskedStream {
    Msrp::U64 id = 0;  ///< 0: there is none yet
    Msrp::SrClassId srClass{};
    Msrp::U64 vlan = 0;
    Msrp::U64 kbps = 0;
};

/// The snapshot and the names must outlive it.
class PortJudge {
public:
    PortJudge(const Snapshot& snapshot, const BridgeNames& names) : snapshot_{snapshot}, names_{names} {}

    /// All there is to look at, and no decision.
    [[nodiscard]] Verdict facts(const std::string& port, const AskedStream& asked) const;
    /// What keeps the port itself from being active for any class; nothing: it may be.
    [[nodiscard]] std::optional<Verdict> away(const std::string& port, const AskedStream& asked) const;
    /// What keeps the port itself from being active for the class; nothing: it is.
    [[nodiscard]] std::optional<Verdict> inactive(const std::string& port, const AskedStream& asked) const;
    /// What an active port fails the stream with, whoever listens; nothing: it is let out.
    [[nodiscard]] std::optional<Verdict> egress(const std::string& port, const AskedStream& asked) const;
    /// The same for the bandwidth that a listener would need.
    [[nodiscard]] std::optional<Verdict> bandwidth(const std::string& port, const AskedStream& asked) const;
    /// The same for the forwarding group that a new stream would need with its first listener.
    [[nodiscard]] std::optional<Verdict> group(const std::string& port, const AskedStream& asked) const;
    /// For a talker's own port, in the order in which its declaration is looked at.
    [[nodiscard]] std::optional<Verdict> ingress(const std::string& port, const AskedStream& asked,
                                                 Msrp::U64 maxFrameSize) const;
    /// The forwarding group that the kernel has refused, in the kernel's words.
    void refuseGroup(Verdict& verdict, const std::string& why) const;

    /// "this bridge", with its name where it has one.
    [[nodiscard]] std::string thisBridge() const;
    [[nodiscard]] bool isThisBridge(Msrp::U64 id) const;
    /// "the peer at swp2", or its name and where it is.
    [[nodiscard]] std::string peerAt(const std::string& port) const;
    /// What changes a member of a VLAN on this switch.
    [[nodiscard]] Mend membership(const std::string& port, Msrp::U64 vlan) const;

private:
    [[nodiscard]] Verdict own(const std::string& port, const AskedStream& asked, Rule rule, std::string what,
                              std::string why) const;
    [[nodiscard]] Verdict vlan(const std::string& port, const AskedStream& asked) const;
    [[nodiscard]] Verdict boundary(const std::string& port, const AskedStream& asked) const;
    [[nodiscard]] Verdict waiting(const std::string& port, const AskedStream& asked) const;
    /// Names those who have the bandwidth, or those of the class alone where its own share is full and the
    /// other class plays no part; gives what they have together, kbit/s.
    Msrp::U64 holders(Verdict& verdict, const std::string& port, const AskedStream& asked,
                      bool ofClass) const;

    const Snapshot& snapshot_;
    const BridgeNames& names_;
};

/// The records that are looked at; and what there may be besides, when those are there: the peers' Domains.
std::vector<std::string> judgedRecords();
std::vector<std::string> judgedMore(const Snapshot& snapshot);

/// Writes to a record: "msrpctl set RECORD FIELD VALUE".
std::string setCommand(std::string_view record, std::string_view field, std::string_view value);
/// "class A"
std::string className(Msrp::SrClassId srClass);
/// "9088 kbps", and what else is said of bandwidth.
std::string kbpsText(Msrp::U64 kbps);

}  // namespace Show
