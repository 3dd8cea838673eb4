#include "Mrp/PduWriter.h"

#include "Runtime/Assert.h"
#include "Runtime/BigEndian.h"

#include <algorithm>

namespace Mrp {

namespace {
constexpr std::size_t maxVectorValues = leaveAllUnit - 1;

std::span<const std::uint8_t> octetsOf(const AttributeValue& value, const AttributeType& type) {
    return std::span{value.octets}.first(type.valueLength);
}
}  // namespace

PduWriter::PduWriter(const ApplicationInfo& application, bool leaveAll, std::size_t capacity)
    : application_{application},
      leaveAll_{leaveAll},
      capacity_{std::clamp(capacity, leastCapacity(), maxPduLength)} {
    octets_.reserve(capacity_);
    octets_.push_back(application.protocolVersion);
}

bool PduWriter::add(std::uint8_t typeIndex, Event event, const AttributeValue& value) {
    const AttributeType& t = type(typeIndex);
    const bool sameMessage = openType_ == typeIndex;
    const bool sameVector = sameMessage && !events_.empty() && events_.size() < maxVectorValues &&
                            t.follows(octetsOf(last_, t), octetsOf(value, t));
    std::size_t length = octets_.size() + endMarkLength;
    if (!events_.empty()) length += vectorLength(type(openType_), events_.size());
    if (sameVector) {
        length += vectorLength(t, events_.size() + 1) - vectorLength(t, events_.size()) + endMarkLength;
    } else {
        length += vectorLength(t, 1) + endMarkLength;
        if (!sameMessage) {
            length += headerLength();
            if (openType_ != noType) length += endMarkLength;
            if (leaveAll_) length += leaveAllLength(nextType_) - leaveAllLength(typeIndex);
        }
    }
    if (leaveAll_) length += leaveAllLength(std::size_t{typeIndex} + 1);
    if (length > capacity_) return false;

    if (!sameMessage) {
        advanceTo(typeIndex);
        openMessage(typeIndex);
    }
    if (!sameVector) {
        closeVector();
        first_ = value;
    }
    last_ = value;
    events_.push_back(event);
    declarations_.push_back(value.declaration);
    return true;
}

std::span<const std::uint8_t> PduWriter::finish() {
    advanceTo(leaveAll_ ? application_.types.size() : nextType_);
    u16(0);
    Runtime::require(octets_.size() <= capacity_, "MRPDU longer than a frame");
    return octets_;
}

std::size_t PduWriter::vectorLength(const AttributeType& type, std::size_t values) {
    return vectorHeaderLength + type.valueLength + (values + 2) / 3 +
           (type.fourPacked ? (values + 3) / 4 : 0);
}

std::size_t PduWriter::leaveAllLength(std::size_t index) const {
    std::size_t length = 0;
    for (; index < application_.types.size(); ++index) {
        length += headerLength() + vectorLength(type(index), 0) + endMarkLength;
    }
    return length;
}

std::size_t PduWriter::leastCapacity() const {
    std::size_t longest = leaveAllLength(0);
    for (const AttributeType& t : application_.types)
        longest = std::max(longest, headerLength() + vectorLength(t, 1) + endMarkLength);
    return versionLength + longest + endMarkLength;
}

void PduWriter::u16(std::size_t value) {
    octets_.push_back(static_cast<std::uint8_t>(value >> 8));
    octets_.push_back(static_cast<std::uint8_t>(value));
}

void PduWriter::openMessage(std::size_t index) {
    messageAt_ = octets_.size();
    octets_.push_back(type(index).type);
    octets_.push_back(type(index).valueLength);
    if (application_.listLength) u16(0);  // known at the end
    openType_ = index;
    nextType_ = index + 1;
    leaveAllDue_ = leaveAll_;
}

void PduWriter::closeVector() {
    if (events_.empty()) return;
    const AttributeType& t = type(openType_);
    u16(events_.size() + (leaveAllDue_ ? leaveAllUnit : 0));
    leaveAllDue_ = false;
    const auto value = octetsOf(first_, t);
    octets_.insert(octets_.end(), value.begin(), value.end());
    const auto eventAt = [this](std::size_t i) {
        return i < events_.size() ? static_cast<std::size_t>(events_[i]) : std::size_t{0};
    };
    for (std::size_t i = 0; i < events_.size(); i += 3) {
        octets_.push_back(static_cast<std::uint8_t>((eventAt(i) * 6 + eventAt(i + 1)) * 6 + eventAt(i + 2)));
    }
    for (std::size_t i = 0; t.fourPacked && i < events_.size(); i += 4) {
        std::size_t octet = 0;
        for (std::size_t k = i; k < i + 4; ++k)
            octet = octet << 2 | (k < declarations_.size() ? declarations_[k] : 0U);
        octets_.push_back(static_cast<std::uint8_t>(octet));
    }
    events_.clear();
    declarations_.clear();
}

void PduWriter::closeMessage() {
    if (openType_ == noType) return;
    closeVector();
    if (leaveAllDue_) {
        // No value came that could carry it.
        u16(leaveAllUnit);
        octets_.insert(octets_.end(), type(openType_).valueLength, std::uint8_t{0});
        leaveAllDue_ = false;
    }
    u16(0);
    openType_ = noType;
    if (!application_.listLength) return;
    Runtime::bigEndianIs(std::span{octets_}.subspan(messageAt_ + 2, 2),
                         octets_.size() - messageAt_ - headerLength());
}

void PduWriter::advanceTo(std::size_t index) {
    closeMessage();
    while (leaveAll_ && nextType_ < index) {
        openMessage(nextType_);
        closeMessage();
    }
}

}  // namespace Mrp
