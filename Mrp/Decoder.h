/// MRPDU octets to plain values (IEEE 802.1Q 10.8).
#pragma once

#include "Mrp/Application.h"
#include "Mrp/Events.h"

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <span>
#include <vector>

namespace Mrp {

/// Most attribute types of an application.
inline constexpr std::size_t maxTypes = 8;

/// An attribute's value; octets beyond its type's length are zero.
struct AttributeValue {
    std::array<std::uint8_t, maxValueLength> octets{};
    std::uint8_t declaration = 0;  ///< of four-packed types, 0 to 3
    bool operator==(const AttributeValue&) const = default;
};

struct DecodedEvent {
    std::uint8_t typeIndex = 0;  ///< position in the application's types
    Event event = Event::New;
    AttributeValue value;
    bool operator==(const DecodedEvent&) const = default;
};

/// What the vectors of a PDU say, value by value.  A PDU may say thousands of things, so each value is made
/// when it is looked at, out of the one before it.
class DecodedEvents {
    struct Vector {
        const AttributeType* type;
        std::uint8_t typeIndex;
        std::size_t values;  ///< and as many octets of `said_`
        std::array<std::uint8_t, maxValueLength> first;
    };

public:
    /// Valid until something is added or cleared, also when the events are moved.
    class Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = DecodedEvent;
        using difference_type = std::ptrdiff_t;
        using pointer = const DecodedEvent*;
        using reference = const DecodedEvent&;

        Iterator() = default;
        reference operator*() const { return event_; }
        pointer operator->() const { return &event_; }
        Iterator& operator++() {
            if (++at_ == vectorEnd_) {
                ++vector_;
                enter();
            } else {
                vector_->type->increment(std::span{event_.value.octets}.first(vector_->type->valueLength));
                read();
            }
            return *this;
        }
        void operator++(int) { ++*this; }
        /// Goes to the first event of the next vector.
        void leaveVector() {
            at_ = vectorEnd_;
            ++vector_;
            enter();
        }
        bool operator==(const Iterator& other) const { return at_ == other.at_; }

    private:
        friend class DecodedEvents;
        Iterator(const DecodedEvents& events, const std::uint8_t* at)
            : vector_{events.vectors_.data()}, at_{at}, end_{events.said_.data() + events.said_.size()} {
            enter();
        }
        void enter() {
            if (at_ == end_) return;
            vectorEnd_ = at_ + vector_->values;
            event_.typeIndex = vector_->typeIndex;
            event_.value.octets = vector_->first;
            read();
        }
        void read() {
            event_.event = static_cast<Event>(*at_ & 7U);
            event_.value.declaration = static_cast<std::uint8_t>(*at_ >> 3U);
        }
        const Vector* vector_ = nullptr;
        const std::uint8_t* at_ = nullptr;
        const std::uint8_t* vectorEnd_ = nullptr;
        const std::uint8_t* end_ = nullptr;
        DecodedEvent event_;
    };

    [[nodiscard]] std::size_t size() const { return said_.size(); }
    [[nodiscard]] bool empty() const { return said_.empty(); }
    [[nodiscard]] Iterator begin() const { return {*this, said_.data()}; }
    [[nodiscard]] Iterator end() const { return {*this, said_.data() + said_.size()}; }

    void clear() {
        vectors_.clear();
        said_.clear();
    }
    /// Adds a vector of at least one value that begins with `first`; the result is to be filled with each
    /// value's event and, in the bits above 7, its declaration.
    std::span<std::uint8_t> add(const AttributeType& type, std::uint8_t typeIndex,
                                std::span<const std::uint8_t> first, std::size_t values);

private:
    std::vector<Vector> vectors_;
    std::vector<std::uint8_t> said_;
};

/// One flaw of a PDU and the octet at which it was seen.
struct Flaw {
    Malformed reason;
    std::size_t offset;
    bool operator==(const Flaw&) const = default;
};

struct DecodedPdu {
    DecodedEvents events;            ///< in the order of the PDU
    std::bitset<maxTypes> leaveAll;  ///< by position in the application's types
    std::vector<Flaw> flaws;         ///< what could be read in spite of them is above
};

/// Reads `pdu` into `out`, replacing what it holds.  Never fails: what is malformed is left out and listed.
/// The work is bounded by the number of octets (at most three values for each).
void decode(std::span<const std::uint8_t> pdu, const ApplicationInfo& application, DecodedPdu& out);

}  // namespace Mrp
