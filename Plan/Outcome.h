/// What has become of a network's streams and links at one moment of its life.
#pragma once

#include "Plan/World.h"
#include "Show/Verdict.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Plan {

/// A port that a stream leaves by on its way.
struct Hop {
    std::size_t link = 0;
    int end = 0;                  ///< the sending one
    Runtime::Duration latency{};  ///< at worst, until the next device has the frame (Plan/Latency.h)
};

struct ListenerOutcome {
    std::size_t station = 0;
    bool reserved = false;
    /// From the talker's own port on, as far as there is a way through the tree.
    std::vector<Hop> path{};
    Runtime::Duration latency{};  ///< of the whole path
    // Of one that is not reserved: who keeps it back
    std::size_t device = 0;
    std::string port{};    ///< empty: what comes in there, or the station itself
    std::uint64_t code{};  ///< failure code that is declared for it there; 0: none
    /// Some of those that fail with the same code at the same port have it all, the others refer to one.
    Show::Verdict verdict{};
};

struct StreamOutcome {
    std::vector<ListenerOutcome> listeners{};
    [[nodiscard]] bool reserved() const;
};

/// One direction of a link.
struct LinkOutcome {
    std::uint32_t megabitsPerSecond = 0;
    bool up = false;
    bool forwards = false;
    std::array<std::uint64_t, 2> usedKbps{};     ///< of class A and class B; of a bridge's port
    std::array<std::uint64_t, 2> allowedKbps{};  ///< class B: what class A leaves of the joint share
    std::uint64_t frames = 0;                    ///< said by the protocol
    std::uint64_t octets = 0;
    std::uint64_t lost = 0;
};

struct Outcome {
    Runtime::Duration at{};
    bool quiet = false;  ///< nothing has changed for a while
    Runtime::Duration lastChange{};
    std::vector<StreamOutcome> streams{};
    std::vector<std::array<LinkOutcome, 2>> links{};  ///< by the end at which the direction begins
};

/// To put reasons in words takes longer than all else.  Where they are left out there is nothing but what is
/// reserved.
enum class Reasons { told, leftOut };
Outcome look(const World& world, Reasons reasons = Reasons::told);

/// "sw2 port sw3: insufficient bandwidth (code 1): ...".  Without its end of line.
std::string reasonText(const Network& network, const ListenerOutcome& listener);

}  // namespace Plan
