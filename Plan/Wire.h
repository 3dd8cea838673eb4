/// One direction of a link: frames take their time at its speed one behind the other, then that of the wire,
/// and some are lost.
#pragma once

#include "Runtime/Loop.h"
#include "Sim/Ports.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <vector>

namespace Plan {

class Wire {
public:
    struct Quality {
        std::uint32_t megabitsPerSecond = 1000;
        Runtime::Duration delay{};
        double loss = 0;
    };
    /// Everything referred to must outlive it.  `deliver` gets what arrives, on the receiver's loop.
    Wire(const Runtime::Loop& sender, Runtime::Loop& receiver, const Quality& quality, std::uint64_t seed,
         std::function<void(const Sim::Pdu&)> deliver);

    /// To be called on the sender's loop.
    void send(const Sim::Pdu& pdu);
    /// Lets what was sent since the last call arrive when it is time.  Where the ends are on different loops,
    /// this is what joins them: by then neither may have gone beyond the time at which it arrives.  False
    /// when there was nothing.
    bool join();
    /// What is under way is lost when the link goes down.
    void upIs(bool up);
    void qualityIs(const Quality& quality) { quality_ = quality; }
    /// The `nth` frame from now on, 1 for the next one, is lost, or comes `late` and behind those that follow
    /// it; 0: none does, which takes an earlier wish back.
    void mishapIs(unsigned nth, std::optional<Runtime::Duration> late = {}) {
        mishap_ = nth;
        late_ = late;
    }

    [[nodiscard]] const Quality& quality() const { return quality_; }
    /// The least time between a frame's sending and its arrival.
    [[nodiscard]] Runtime::Duration least() const { return quality_.delay + onWire(0); }
    /// Frames that were sent and their octets, from the destination address to the check sequence.
    [[nodiscard]] std::uint64_t frames() const { return frames_; }
    [[nodiscard]] std::uint64_t octets() const { return octets_; }
    [[nodiscard]] std::uint64_t lost() const { return lost_; }

private:
    struct Travelling {
        Runtime::Time due;
        Sim::Pdu pdu;
    };
    /// Time that a frame with so many octets of an MRPDU takes with all that Ethernet puts around it.
    [[nodiscard]] Runtime::Duration onWire(std::size_t pduOctets) const;
    void arrive();

    const Runtime::Loop& sender_;
    const bool together_;  ///< both ends are on one loop
    Quality quality_;
    std::function<void(const Sim::Pdu&)> deliver_;
    std::mt19937_64 random_;
    bool up_ = true;
    unsigned mishap_ = 0;  ///< frames until then
    std::optional<Runtime::Duration> late_;
    Runtime::Time busyUntil_{};
    std::vector<Travelling> sent_;       ///< the sender's
    std::deque<Travelling> travelling_;  ///< the receiver's
    Runtime::Timer arrival_;
    std::uint64_t frames_ = 0;
    std::uint64_t octets_ = 0;
    std::uint64_t lost_ = 0;
};

}  // namespace Plan
