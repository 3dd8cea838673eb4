/// An agent of ours in the place of a bridge whose frames were captured: it gets what came in at its times,
/// and what it declares is laid beside what the bridge declared.
///
/// What is compared is not frames, whose times and packing are everybody's own, but what was declared on each
/// port: every attribute with its value, as the frames say it.  A LeaveAll of either side withdraws what is
/// not declared again in time.  The peers in a capture answer the LeaveAlls that the bridge sent, not any
/// that ours would send; so ours sends none, and takes the bridge's as if its peer had sent them, which has
/// the same effect on what it has registered.
#pragma once

#include "Plan/replay/Declared.h"
#include "Plan/replay/Traffic.h"
#include "Runtime/Time.h"
#include "State/Value.h"
#include "Switch/EthAddr.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Plan {

/// One frame with what is to be said of it.  What is referred to is valid during the call only.
struct Annotated {
    Pcapng::WallTime time{};
    std::size_t port = 0;  ///< place in the traffic's ports
    bool ours = false;     ///< said by our agent; it stands in no capture
    bool sent = false;     ///< by the bridge
    std::size_t onWire = 0;
    std::span<const std::uint8_t> octets{};
    std::string_view comment{};
};

/// An attribute that was declared differently for longer than `ReplayResult::tolerance`.
struct ReplayFinding {
    std::size_t port = 0;
    AttributeName name{};
    Runtime::Duration from{};               ///< since the first frame
    std::optional<Runtime::Duration> to{};  ///< empty: it still was when the capture ended
    std::optional<Declaration> theirs{};
    std::optional<Declaration> ours{};
    std::string reason{};  ///< why ours declares what it does; empty where it has nothing to say
};

struct ReplayPort {
    std::size_t in = 0;    ///< frames
    std::size_t sent = 0;  ///< by the bridge
    std::size_t ours = 0;
    std::size_t attributes = 0;  ///< that either has declared
    std::size_t findings = 0;
    /// Something of what the bridge sent is in the capture, and MSRP is enabled in the configuration.
    bool compared = false;
};

struct ReplayResult {
    EthAddr bridge{};
    Runtime::Duration span{};  ///< from the first frame to the last
    /// From there on both know the same; empty: never, as the capture begins in the middle and no LeaveAll
    /// follows on some port.
    std::optional<Runtime::Duration> comparedFrom{Runtime::Duration{}};
    Runtime::Duration tolerance{};
    std::vector<ReplayPort> ports{};  ///< as the traffic's
    std::vector<ReplayFinding>
        findings{};  ///< in the order in which they began to count, at most `mostFindings`
    std::size_t moreFindings = 0;
    std::size_t brief = 0;  ///< differences within the tolerance
    Runtime::Duration longestBrief{};
    std::vector<std::string> notes{};  ///< what was assumed
};
inline constexpr std::size_t mostFindings = 1000;

struct ReplayInput {
    /// Records by path, as a configuration file has them; found good before.
    State::Value config{};
};

/// The bridge's address, where the configuration gives it.
std::optional<EthAddr> configuredAddress(const State::Value& config);

/// `annotate` gets every frame of the traffic and every one that ours says, in the order of time; it may be
/// null.
ReplayResult replay(const Traffic& traffic, const ReplayInput& input,
                    const std::function<void(const Annotated&)>& annotate);

}  // namespace Plan
