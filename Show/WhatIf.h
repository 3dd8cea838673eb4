/// `msrpctl what-if`: would a stream get from one port to others, how many of its kind would, and what if
/// shares, speeds or VLANs were others.  Computed on a copy of the records, by the functions with which the
/// agent decides.
#pragma once

#include "Msrp/bandwidth/MediaFormats.h"
#include "Show/BridgeNames.h"
#include "Show/PortFacts.h"
#include "Show/Verdict.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Show {

struct WhatIf {
    Msrp::SrClassId srClass = Msrp::SrClassId::SrClassA;
    Msrp::Tspec tspec{};
    std::optional<Msrp::U16> vlan{};  ///< none: that of the talker's port
    std::string from{};
    std::vector<std::string> to{};  ///< empty: all other enabled ports
    // What were different
    std::map<Msrp::SrClassId, Msrp::U64> shares{};     ///< per cent
    std::map<std::string, Interface::Speed> speeds{};  ///< by port
    std::map<std::string, Msrp::U16> members{};        ///< tagged member of that VLAN too, by port
};

/// What one port would say.
struct Prospect {
    std::string port;
    Verdict verdict;
    Msrp::U64 availableKbps = 0;
    /// How many streams of this kind would be let in, one after the other, each with an address of its own;
    /// none: as many as there are, since they are charged for nothing and nobody knows of a limit of groups.
    std::optional<Msrp::U64> count = 0;
    /// What a change would bring to streams that are there: those that lose their bandwidth, and those that
    /// have waited for it and come first.
    std::vector<Holder> lost{};
    std::vector<Holder> gained{};
    bool startsOver = false;  ///< the change makes all of its streams ask anew
};

struct WhatIfAnswer {
    WhatIf asked;
    Msrp::U64 vlan = 0;
    Msrp::U64 kbps = 0;
    Msrp::U64 chargedFrames = 0;  ///< in an interval
    Verdict talker;               ///< `fits` where it would be taken
    std::vector<Prospect> ports;
};

/// Why the question makes no sense here; empty: it does.
std::string whatIfProblem(const Snapshot& snapshot, const WhatIf& question);
/// The records as they were with the changes in force: refused streams that have waited are let in where a
/// share has grown, and a port with another speed has let its streams in anew, in the order of their ids.
Snapshot changedSnapshot(const Snapshot& snapshot, const WhatIf& question);
WhatIfAnswer whatIf(const Snapshot& snapshot, const BridgeNames& names, const WhatIf& question);

std::string whatIfText(const WhatIfAnswer& answer, const Page& page = {});
State::Value whatIfValue(const WhatIfAnswer& answer);
/// What that is.
State::Schema whatIfSchema();

}  // namespace Show
