/// What an agent like ours has left in the kernel, on whatever bridge or port, found by its marks alone and
/// without any agent that runs.
#pragma once

#include "Linux/DeviceTable.h"
#include "Linux/Netlink.h"

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
