/// What `msrpctl show` has: which records each of its tables is made of, and what becomes of them.
#pragma once

#include "Show/Page.h"
#include "Show/Snapshot.h"
#include "State/Schema.h"

#include <string>
#include <vector>

namespace Show {

struct View {
    std::vector<std::string> records;
    std::string (*text)(const Snapshot& snapshot, const Page& page);
    /// Of a shape that does not depend on what is there,
    State::Value (*value)(const Snapshot& snapshot);
    /// and this is it.
    State::Schema (*schema)();
    /// Paths of further records that the first ones name.  What of it is gone meanwhile is left out.
    std::vector<std::string> (*more)(const Snapshot& snapshot) = nullptr;
};

/// One row for each stream, and below it the ports that carry it and the reasons of those that do not.
const View& streams();
/// What is reserved for each stream, and what comes in of it.
const View& traffic();
/// Link, forwarding, classes, bandwidth in use and allowed, and how the protocol fares, for each port.
const View& ports();
/// What each port is to each class, and the Domain that it declares.
const View& domain();
/// What VLANs each port carries, and which of them MVRP has brought.
const View& vlans();
/// The counters of each port; in words, those that are not zero.
const View& counters();
/// One row for each enabled port whose protocol engine runs.
const View& engines();
/// The kernel's abilities, the way in which each port is shaped, and the room for groups.
const View& capabilities();
/// Which supervisor acts, which could, and how the store is.
const View& redundancy();
/// Recent lines of the system log with their age.
const View& log();

}  // namespace Show
