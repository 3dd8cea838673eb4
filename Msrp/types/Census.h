/// "msrp/census": how the published streams stand, in numbers that do not take longer to read when there are
/// many of them.
#pragma once

#include "Msrp/types/Enums.h"
#include "State/Record.h"

#include <array>
#include <string_view>

namespace Msrp {

class StreamData;

enum class StreamStanding : U8 {
    noTalker,        ///< ports ask for a stream that nobody offers
    talkerFailed,    ///< it has failed at or before the talker's port
    offered,         ///< no port asks for it
    reserved,        ///< every port that asks for it gets it
    partlyReserved,  ///< some of them do
    refused,         ///< none of them does
};
constexpr auto streamStandingNames =
    std::to_array<State::EnumName<StreamStanding>>({{StreamStanding::noTalker, "noTalker"},
                                                    {StreamStanding::talkerFailed, "talkerFailed"},
                                                    {StreamStanding::offered, "offered"},
                                                    {StreamStanding::reserved, "reserved"},
                                                    {StreamStanding::partlyReserved, "partlyReserved"},
                                                    {StreamStanding::refused, "refused"}});
constexpr const auto& enumNames(StreamStanding) { return streamStandingNames; }

/// Failure codes that the standard knows stand for themselves, others for this one (table 35-6).
inline constexpr U8 otherFailure = 0;
inline constexpr U8 knownFailures = number(TalkerFailureCode::srClassPriorityMismatch) + 1;

/// What the census counts of one stream.
struct StreamCase {
    StreamStanding standing = StreamStanding::noTalker;
    U32 failures = 0;  ///< a bit for each failure code that is said of it on any port
    bool operator==(const StreamCase&) const = default;
};
StreamCase streamCase(const StreamData& stream);

class Census : public State::Record<Census> {
public:
    static constexpr std::string_view type = "Msrp::Census";
    /// Of no stream.
    Census();

    [[nodiscard]] U64 streams(StreamStanding standing) const { return streams_.get(standing); }
    /// Streams of which that failure code is said on a port at least.
    [[nodiscard]] U64 failure(U8 code) const { return failure_.get(code); }
    void add(const StreamCase& stream) { count(stream, 1); }
    void remove(const StreamCase& stream) { count(stream, ~U64{0}); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::map("streams", &Census::streams_));
        each(State::map("failure", &Census::failure_));
    }

private:
    void count(const StreamCase& stream, U64 more);

    State::FlatMap<StreamStanding, U64> streams_;
    State::FlatMap<U8, U64> failure_;
};

}  // namespace Msrp

// Made once, in the source file beside this header.
extern template class State::Record<Msrp::Census>;
