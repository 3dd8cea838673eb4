/// What has to be asked of the kernel so that a port's queues give the SR classes what they have reserved.
///
/// Credits: "mqprio" at the root gives class A the first transmit queue, class B the second, and the rest to
/// all other traffic; below it "cbs" shapes those of the two classes that have a reservation, and lets
/// everything of the other pass.  Token buckets:
/// "htb" at the root with a class for each of the two and one for all the rest, chosen by the priority in the
/// tag of a frame that leaves.
#pragma once

#include "Linux/queues/Credits.h"
#include "Linux/queues/PortQueues.h"
#include "Linux/queues/SrQueues.h"
#include "Linux/records/CapabilityStatus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Linux {

/// One port's queues as they should be.
struct WantedQueues {
    unsigned ifindex = 0;
    /// Of the root's handle, which marks it as ours.  Class A's child has the next number, class B's the one
    /// after that.
    std::uint16_t major = 0;
    Shaper shaper = Shaper::none;
    std::uint64_t portRate = 0;  ///< kbit/s as the kernel has it, which also counts by it; above both rates
    ClassRates rates;
    ClassPriorities priorities;
    std::uint16_t otherQueues = 1;  ///< transmit queues behind the classes' two
    bool inSwitchChip = false;      ///< a chip forwards, and sorts frames into queues
    bool ready = false;             ///< the queues are made before anything is reserved
    LargestFrames frames{};
    bool operator==(const WantedQueues&) const = default;
};

/// One request, and the difference that it removes.
struct QueueStep {
    std::string difference;
    NetlinkMessage request;
};

/// Whether somebody else has set up the port's queues.
bool foreignRoot(const PortQueues& have, std::uint16_t major);
/// Whether the queues below a root with that number are such as only we make them.  While we run, the number
/// is ours; without us it says nothing, since others choose round ones, too.
bool madeByUs(const PortQueues& have, std::uint16_t major);
/// The rates to which queues of ours are shaped.
ClassRates shapedRates(const PortQueues& have, std::uint16_t major);

/// The steps in their order; none for queues that are right, or another's.  A port without reservations keeps
/// a root that is right, so that no frame is lost when the next reservation comes, but gets one only when it
/// is to be ready for the first.
std::vector<QueueStep> planQueues(const WantedQueues& wanted, const PortQueues& have);

}  // namespace Linux
