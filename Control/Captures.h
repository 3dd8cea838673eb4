/// The captures of one client: the ports that it listens to, and the frames that it has not fetched yet.
///
/// Memory is bounded.  What finds no room is dropped and counted, and the count goes out with the next frame
/// of that port that found room, so that the client knows where the gap is.
#pragma once

#include "Control/Budget.h"
#include "Control/FrameSource.h"
#include "Runtime/Loop.h"
#include "State/Value.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <span>
#include <string>
#include <vector>

namespace Control {

class Captures {
public:
    /// Ports at a time.
    static constexpr std::size_t portLimit = 32;
    /// Octets of memory for frames that wait: what a peer with thousands of streams says in one go.
    static constexpr std::size_t waitingLimit = std::size_t{4} << 20;

    /// `budget` is what all captures of all clients have together.  `notice` is called when a frame waits and
    /// none did before; from inside a frame's way, so it should only make a note.  All must outlive this.
    Captures(const Runtime::Loop& loop, FrameSource& source, Budget& budget, std::function<void()> notice);
    ~Captures() { clear(); }

    /// Begins a capture.  Empty, or one line that says why not.
    std::string add(const std::string& port);
    /// Ends them all, and forgets what waits.
    void clear();

    [[nodiscard]] bool any() const { return !captures_.empty(); }
    [[nodiscard]] bool waiting() const { return !waiting_.empty(); }
    /// Takes the oldest frame that waits, in the form in which it goes out; only while one waits.
    [[nodiscard]] State::Object next();

private:
    struct Capture {
        Capture(Captures& owner, const std::string& port);
        std::uint64_t dropped = 0;  ///< since a frame last found room
        const FrameSource::Subscription subscription;
    };
    struct Frame {
        const Capture& capture;
        Runtime::Time time;
        Direction direction;
        std::uint64_t dropped;  ///< between the one before it and this one
        std::vector<std::uint8_t> octets;

        [[nodiscard]] std::size_t memory() const { return sizeof(Frame) + octets.size(); }
    };

    void keep(Capture& capture, Direction direction, std::span<const std::uint8_t> frame);

    const Runtime::Loop& loop_;
    FrameSource& source_;
    Budget& budget_;
    const std::function<void()> notice_;
    std::list<Capture> captures_;
    std::deque<Frame> waiting_;
    std::size_t memory_ = 0;  ///< of all that wait
};

}  // namespace Control
