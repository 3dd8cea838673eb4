/// What has happened to the switch's reservations, one thing at a time: what the journal keeps.
#pragma once

#include "Msrp/types/Enums.h"
#include "Runtime/Time.h"
#include "State/Codec.h"
#include "Switch/EthAddr.h"
#include "Switch/IntfId.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace History {

/// The numbers stand in files.
enum class Kind : std::uint8_t {
    daemon = 1,     ///< started, stopped; `text` says it
    port = 2,       ///< link, speed or msrp of the port: `field`, `before`, `after`
    domain = 3,     ///< what the port is to a class: the same, and in `text` what the peer says of the class
    config = 4,     ///< an operator's change: the record in `text`, `field`, `before`, `after`, `by`
    refused = 5,    ///< the kernel cannot do something: what in `field`, why in `text`
    accepted = 6,   ///< ... and can again
    talker = 7,     ///< the stream's talker is heard on the port
    left = 8,       ///< ... and is not any more
    asked = 9,      ///< a listener on the port asks for it, and nothing is reserved yet
    reserved = 10,  ///< it is reserved to the port
    released = 11,  ///< ... and is not any more
    failed = 12,    ///< it fails on the port; on the talker's port, everywhere
    waits = 13,     ///< ... and is tried again when others release what it needs
    unasked = 14,   ///< the listener to which nothing was reserved has left
};
constexpr auto kindNames = std::to_array<State::EnumName<Kind>>({{Kind::daemon, "daemon"},
                                                                 {Kind::port, "port"},
                                                                 {Kind::domain, "domain"},
                                                                 {Kind::config, "config"},
                                                                 {Kind::refused, "refused"},
                                                                 {Kind::accepted, "accepted"},
                                                                 {Kind::talker, "talker"},
                                                                 {Kind::left, "left"},
                                                                 {Kind::asked, "asked"},
                                                                 {Kind::reserved, "reserved"},
                                                                 {Kind::released, "released"},
                                                                 {Kind::failed, "failed"},
                                                                 {Kind::waits, "waits"},
                                                                 {Kind::unasked, "unasked"}});
constexpr const auto& enumNames(Kind) { return kindNames; }

/// Why something ended, as far as records tell.  The numbers stand in files.
enum class Reason : std::uint8_t {
    none = 0,
    withdrawn = 1,  ///< its peer took it back, or did not renew it: the records do not tell which
    linkDown = 2,
    msrpEnded = 3,
    classEnded = 4,  ///< the port is not in the domain of the stream's class any more
    talkerLeft = 5,
    talkerFailed = 6,
    talkerMoved = 7,
};
constexpr auto reasonNames =
    std::to_array<State::EnumName<Reason>>({{Reason::none, ""},
                                            {Reason::withdrawn, "withdrawn or not renewed"},
                                            {Reason::linkDown, "link down"},
                                            {Reason::msrpEnded, "MSRP ended on the port"},
                                            {Reason::classEnded, "the port left the domain of the class"},
                                            {Reason::talkerLeft, "the talker left"},
                                            {Reason::talkerFailed, "the talker failed"},
                                            {Reason::talkerMoved, "the talker moved"}});
constexpr const auto& enumNames(Reason) { return reasonNames; }

struct Event {
    std::uint64_t sequence = 0;  ///< given by the journal
    Runtime::Time time{};        ///< when it happened, on the daemon's clock
    Runtime::WallTime wallTime{};
    Kind kind = Kind::daemon;
    Reason reason = Reason::none;
    IntfId intf{};  ///< none: it concerns no port

    // Of streams.
    std::uint64_t stream = 0;
    bool ofStream = false;  ///< 0 is a stream's id too
    std::uint8_t code = 0;  ///< a Msrp::TalkerFailureCode, or another number that a peer has sent
    Msrp::SrClassId srClass{};
    std::uint16_t vlan = 0;
    std::uint32_t kbps = 0;
    EthAddr destination{};
    std::uint64_t bridge = 0;  ///< that found the failure

    // Of the rest; each is kept as far as there is room (`textOctets`).
    std::string text{};
    std::string field{};
    std::string before{};
    std::string after{};
    std::string by{};  ///< who changed the configuration; empty where it is not known

    bool operator==(const Event&) const = default;
};

/// How many octets an event takes, whatever it is, and what of it all texts together may have.
inline constexpr std::size_t slotOctets = 256;
inline constexpr std::size_t textOctets = 160;
using Slot = std::array<std::byte, slotOctets>;

void encode(const Event& event, std::span<std::byte, slotOctets> slot);
/// False when it is no event, or not a whole one; then `event` is of no use.
[[nodiscard]] bool decode(std::span<const std::byte, slotOctets> slot, Event& event);
/// What a search looks at, of a slot that holds an event.
struct Glance {
    Kind kind;
    bool ofStream;
    std::uint64_t stream;
    Runtime::WallTime wallTime;
    std::string_view intf;  ///< in the slot
};
[[nodiscard]] Glance glance(std::span<const std::byte, slotOctets> slot);
/// A number that another content of those octets has with all but certainty not.
[[nodiscard]] std::uint64_t checksum(std::span<const std::byte> octets);

/// As a record's value.  Every event has every member, null where it says nothing.  `missing`: how many that
/// came right before it are kept no longer.
[[nodiscard]] State::Value valueOf(const Event& event, std::uint64_t missing);
/// What such a value is.
[[nodiscard]] State::Schema eventSchema();

}  // namespace History
