/// A simulated bridge's records at one moment, as those reports look at them that ask a running daemon.
#pragma once

#include "Show/Explain.h"
#include "Sim/Bridge.h"

#include <string>

namespace Plan {

class BridgeRecords {
public:
    /// `now` in seconds.  The bridge must outlive it, and what it tells is of the moments of the calls.
    BridgeRecords(Sim::Bridge& bridge, double now);

    /// To that port alone where it is not empty.
    Show::Explanation explain(const Show::BridgeNames& names, std::uint64_t id, const std::string& port);
    /// Null where there is no such record or field.
    State::Value value(const std::string& path) const;

private:
    void take(const std::string& path);

    Sim::Bridge& bridge_;
    Show::Snapshot snapshot_;
};

}  // namespace Plan
