/// What an agent like ours has left in the kernel, on whatever bridge or port, found without any agent that
/// runs: by our marks, and the roles of ports that we took away by the file that remembers them.
///
/// What has no mark of ours is another's: queues under our number that we would have made otherwise, and a
/// place for filters of incoming frames that has none of ours.
#pragma once

#include "Linux/kernel/Netlink.h"
#include "Linux/links/DeviceTable.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace Linux {

/// By what our own is known.
struct OwnMarks {
    std::set<std::uint8_t> groupProtocols;
    std::set<std::uint16_t> queueHandles;
    /// What the paths of the files begin with that a daemon kept; empty: none are looked at.
    std::string files{};
};

struct Leftover {
    std::string device;  ///< a bridge, or a port
    std::string what;
    /// Takes it away.  Empty on success; else what went wrong.
    std::function<std::string(NetlinkChannel& kernel)> remove;
};

/// Empty on success; else `found` is not all.
std::string findLeftovers(NetlinkChannel& kernel, const DeviceTable& devices, const OwnMarks& marks,
                          std::vector<Leftover>& found);

}  // namespace Linux
