/// Received MRPDUs that wait until their port has its turn.  A port that is sent more than it may work off
/// keeps the others from nothing: its frames wait here, and in the end are lost, as frames may be.
#pragma once

#include "Mrp/Decoder.h"
#include "Runtime/Time.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace Mrp {

/// One PDU on its way through a participant, which may take several turns for it.
struct Reception {
    DecodedPdu pdu;
    Runtime::Time arrived{};
    bool begun = false;      ///< counted, and its LeaveAlls applied
    bool firstTypes = true;  ///< still at the types that are delivered first
    std::set<std::pair<std::uint8_t, std::uint64_t>> firstRefs;  ///< of these: type and key, to be offered
    DecodedEvents::Iterator next;                                ///< of `pdu`, once begun
};

class Inbox {
public:
    /// Frames that wait at most: more than the answer to a LeaveAll of 16,000 scattered streams.
    static constexpr std::size_t limit = 1024;

    /// False when it is full.
    [[nodiscard]] bool push(Runtime::Time arrived, std::span<const std::uint8_t> pdu) {
        if (waiting_.size() == limit) return false;
        waiting_.push_back({arrived, {pdu.begin(), pdu.end()}});
        return true;
    }
    /// Puts back what was begun.
    void putBack(std::unique_ptr<Reception> begun) { begun_ = std::move(begun); }
    /// The next one, decoded; only while it is not empty.
    [[nodiscard]] std::unique_ptr<Reception> take(const ApplicationInfo& application) {
        if (begun_) return std::move(begun_);
        auto next = std::make_unique<Reception>();
        next->arrived = waiting_.front().arrived;
        decode(waiting_.front().octets, application, next->pdu);
        waiting_.pop_front();
        return next;
    }
    void clear() {
        begun_.reset();
        waiting_.clear();
    }
    /// The next one is done in part.
    [[nodiscard]] bool begun() const { return begun_ != nullptr; }
    [[nodiscard]] bool empty() const { return !begun_ && waiting_.empty(); }
    /// When the oldest one arrived.
    [[nodiscard]] std::optional<Runtime::Time> since() const {
        if (begun_) return begun_->arrived;
        return waiting_.empty() ? std::nullopt : std::optional<Runtime::Time>{waiting_.front().arrived};
    }

private:
    struct Frame {
        Runtime::Time arrived;
        std::vector<std::uint8_t> octets;
    };
    std::unique_ptr<Reception> begun_;
    std::deque<Frame> waiting_;
};

}  // namespace Mrp
