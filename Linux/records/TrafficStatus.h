/// "linux/traffic": what comes in of each stream at its talker's port.
#pragma once

#include "State/Record.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Linux {

/// One stream; the key is its id.  Counted from when it was registered.
class StreamTraffic : public State::Record<StreamTraffic> {
public:
    static constexpr std::string_view type = "Linux::StreamTraffic";
    explicit StreamTraffic(std::uint64_t streamId) : streamId_{streamId} {}

    [[nodiscard]] std::uint64_t streamId() const { return streamId_; }
    [[nodiscard]] std::uint64_t frames() const { return frames_; }
    void framesIs(std::uint64_t v) { assign(frames_, v, "frames"); }
    /// Behind the tags.
    [[nodiscard]] std::uint64_t octets() const { return octets_; }
    void octetsIs(std::uint64_t v) { assign(octets_, v, "octets"); }
    /// Frames, of all, that were over the reservation for longer than bursts last.
    [[nodiscard]] std::uint64_t over() const { return over_; }
    void overIs(std::uint64_t v) { assign(over_, v, "over"); }
    /// Frames, besides, to the stream's address that do not have its priority.
    [[nodiscard]] std::uint64_t otherPriority() const { return otherPriority_; }
    void otherPriorityIs(std::uint64_t v) { assign(otherPriority_, v, "otherPriority"); }
    /// kbit/s on the wire, as reservations are counted, between the latest two readings.
    [[nodiscard]] std::uint64_t kbps() const { return kbps_; }
    void kbpsIs(std::uint64_t v) { assign(kbps_, v, "kbps"); }
    /// Seconds on the agent's clock; 0: there has been none.
    [[nodiscard]] double lastFrame() const { return lastFrame_; }
    void lastFrameIs(double v) { assign(lastFrame_, v, "lastFrame"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("frames", &StreamTraffic::frames_));
        each(State::scalar("octets", &StreamTraffic::octets_));
        each(State::scalar("over", &StreamTraffic::over_));
        each(State::scalar("otherPriority", &StreamTraffic::otherPriority_));
        each(State::scalar("kbps", &StreamTraffic::kbps_));
        each(State::scalar("lastFrame", &StreamTraffic::lastFrame_));
    }

private:
    std::uint64_t streamId_;
    std::uint64_t frames_ = 0;
    std::uint64_t octets_ = 0;
    std::uint64_t over_ = 0;
    std::uint64_t otherPriority_ = 0;
    std::uint64_t kbps_ = 0;
    double lastFrame_ = 0.0;
};

class TrafficStatus : public State::Record<TrafficStatus> {
public:
    static constexpr std::string_view type = "Linux::TrafficStatus";

    /// The streams that are metered.
    [[nodiscard]] const State::Collection<std::uint64_t, StreamTraffic>& stream() const { return stream_; }
    [[nodiscard]] std::shared_ptr<const StreamTraffic> stream(std::uint64_t id) const {
        return stream_.get(id);
    }
    std::shared_ptr<StreamTraffic> streamIs(std::uint64_t id) { return makeChild(stream_, id, "stream"); }
    void streamDel(std::uint64_t id) { delChild(stream_, id, "stream"); }
    void streamDelAll() { delChildren(stream_, "stream"); }
    /// Why some are not metered; empty: all are.
    [[nodiscard]] const std::string& problem() const { return problem_; }
    void problemIs(const std::string& v) { assign(problem_, v, "problem"); }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection<State::HexKey>("stream", &TrafficStatus::stream_));
        each(State::scalar("problem", &TrafficStatus::problem_));
    }

private:
    State::Collection<std::uint64_t, StreamTraffic> stream_;
    std::string problem_;
};

}  // namespace Linux

// Made once, in the source file beside this header.
extern template class State::Record<Linux::StreamTraffic>;
extern template class State::Record<Linux::TrafficStatus>;
