/// Packs events into MRPDUs (IEEE 802.1Q 10.8): consecutive values into one vector, one message for each
/// type.
#pragma once

#include "Mrp/Application.h"
#include "Mrp/Decoder.h"
#include "Mrp/Events.h"
#include "Mrp/PduLayout.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Mrp {

class PduWriter {
public:
    /// Starts an empty PDU.  With `leaveAll` it carries a LeaveAll of every type; room for that is kept.
    /// `capacity` is what it may have in octets, at most maxPduLength; what cannot be had with less (a
    /// LeaveAll of every type, a single event) takes what it needs.
    PduWriter(const ApplicationInfo& application, bool leaveAll, std::size_t capacity = maxPduLength);

    /// Adds one event, of the types in ascending order.  False, and nothing changed, when it does not fit; an
    /// event always fits into a PDU that holds none and no LeaveAll.
    bool add(std::uint8_t typeIndex, Event event, const AttributeValue& value);
    /// True while there is nothing to send.
    [[nodiscard]] bool empty() const {
        return !leaveAll_ && octets_.size() == versionLength && events_.empty();
    }
    /// Completes the PDU.  Nothing may be added afterwards.
    std::span<const std::uint8_t> finish();

private:
    static constexpr std::size_t noType = SIZE_MAX;

    [[nodiscard]] const AttributeType& type(std::size_t index) const { return application_.types[index]; }
    [[nodiscard]] std::size_t headerLength() const { return messageHeaderLength(application_.listLength); }
    /// Octets of a vector of that many values.
    [[nodiscard]] static std::size_t vectorLength(const AttributeType& type, std::size_t values);
    /// Octets of the LeaveAll messages of the types from `index` on.
    [[nodiscard]] std::size_t leaveAllLength(std::size_t index) const;
    /// Octets of the longest PDU that cannot be divided.
    [[nodiscard]] std::size_t leastCapacity() const;
    void u16(std::size_t value);
    void openMessage(std::size_t index);
    void closeVector();
    void closeMessage();
    /// Ends the open message and writes the LeaveAlls of the types up to (not including) `index`.
    void advanceTo(std::size_t index);

    ApplicationInfo application_;
    bool leaveAll_;
    std::size_t capacity_;
    std::vector<std::uint8_t> octets_;  ///< all but the open vector
    std::size_t openType_ = noType;     ///< type of the open message
    std::size_t messageAt_ = 0;         ///< where the open message starts
    std::size_t nextType_ = 0;          ///< types below it are done or open
    bool leaveAllDue_ = false;          ///< the next vector of the open message carries the LeaveAll
    AttributeValue first_;              ///< of the open vector
    AttributeValue last_;
    std::vector<Event> events_;  ///< of the open vector; empty when none is open
    std::vector<std::uint8_t> declarations_;
};

}  // namespace Mrp
