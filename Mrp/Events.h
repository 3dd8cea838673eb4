/// The events of an MRPDU and what can be wrong with one, with their names.
#pragma once

#include "State/Codec.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Mrp {

/// What an MRPDU says of an attribute (IEEE 802.1Q 10.8.2.10.1, with the numbers of the wire), and LeaveAll,
/// which it says of a whole type.
enum class Event : std::uint8_t { New = 0, JoinIn = 1, In = 2, JoinMt = 3, Mt = 4, Lv = 5, LeaveAll = 6 };
constexpr auto eventNames = std::to_array<State::EnumName<Event>>({{Event::New, "New"},
                                                                   {Event::JoinIn, "JoinIn"},
                                                                   {Event::In, "In"},
                                                                   {Event::JoinMt, "JoinMt"},
                                                                   {Event::Mt, "Mt"},
                                                                   {Event::Lv, "Lv"},
                                                                   {Event::LeaveAll, "LeaveAll"}});
constexpr const auto& enumNames(Event) { return eventNames; }
inline constexpr std::size_t eventKinds = eventNames.size();

/// True for the events by which the sender declares the attribute.
constexpr bool declares(Event event) {
    return event == Event::New || event == Event::JoinIn || event == Event::JoinMt;
}

/// Why a part of a received MRPDU was discarded (IEEE 802.1Q 10.8.3).
enum class Malformed : std::uint8_t {
    tooShort,            ///< no room for a version and one message header; the whole PDU
    listPastEnd,         ///< AttributeListLength runs past the PDU; the rest of the PDU
    wrongLength,         ///< AttributeLength is not that of the type; the message
    vectorPastEnd,       ///< more values than the list has octets for, or half its EndMark taken for events;
                         ///< the vector and the rest of the message
    eventPastRange,      ///< a ThreePacked octet above 215; the rest of the vector
    listLengthMismatch,  ///< vectors and AttributeListLength disagree; the rest of the message
    valuePastRange,      ///< values that the increments cannot reach; those values
};
constexpr auto malformedNames =
    std::to_array<State::EnumName<Malformed>>({{Malformed::tooShort, "tooShort"},
                                               {Malformed::listPastEnd, "listPastEnd"},
                                               {Malformed::wrongLength, "wrongLength"},
                                               {Malformed::vectorPastEnd, "vectorPastEnd"},
                                               {Malformed::eventPastRange, "eventPastRange"},
                                               {Malformed::listLengthMismatch, "listLengthMismatch"},
                                               {Malformed::valuePastRange, "valuePastRange"}});
constexpr const auto& enumNames(Malformed) { return malformedNames; }
inline constexpr std::size_t malformedKinds = malformedNames.size();
/// The same in words, for the operator.
constexpr std::string_view describe(Malformed reason) {
    switch (reason) {
        case Malformed::tooShort:
            return "shorter than a version and a message header";
        case Malformed::listPastEnd:
            return "AttributeListLength runs past the end";
        case Malformed::wrongLength:
            return "AttributeLength is not that of the type";
        case Malformed::vectorPastEnd:
            return "vector runs past its list";
        case Malformed::eventPastRange:
            return "no event has this number";
        case Malformed::listLengthMismatch:
            return "AttributeListLength does not fit the vectors";
        case Malformed::valuePastRange:
            return "vector runs past the last value";
    }
    return "";
}

}  // namespace Mrp
