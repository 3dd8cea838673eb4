/// What a replay came to: for people, for programs, and as a capture with comments.
#pragma once

#include "Plan/replay/Replay.h"
#include "State/Value.h"

#include <functional>
#include <string>
#include <vector>

namespace Plan {

/// Nothing was declared differently, all of it was compared, and the captures are whole.
bool agrees(const Traffic& traffic, const ReplayResult& result);

/// One line, without its end.
std::string findingText(const Traffic& traffic, const ReplayFinding& finding);
std::string replayText(const Traffic& traffic, const ReplayResult& result);
/// Of one shape, whatever the traffic.
State::Value replayValue(const Traffic& traffic, const ReplayResult& result);

/// Makes the octets of a pcapng file, piece by piece: an interface for each port, and one beside it for what
/// ours says there.
class AnnotatedFile {
public:
    using Write = std::function<void(std::span<const std::uint8_t>)>;
    /// Writes the beginning.
    AnnotatedFile(const std::vector<std::string>& ports, Write write);
    void add(const Annotated& frame);

private:
    Write write_;
};

}  // namespace Plan
