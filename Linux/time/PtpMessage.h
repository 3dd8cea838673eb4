/// PTP management messages (IEEE 1588 clause 15), as far as the state of a port's clock is asked for with
/// them.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Linux {

/// managementId; those above 0xC000 are linuxptp's own.
enum class PtpData : std::uint16_t {
    portState = 0x2004,  ///< PORT_DATA_SET
    capable = 0xC002,    ///< PORT_DATA_SET_NP
    events = 0xC003,     ///< SUBSCRIBE_EVENTS_NP
    interface = 0xC004,  ///< PORT_PROPERTIES_NP
};

/// Who asks, and how messages of a network are marked: 1 for IEEE 802.1AS, 0 otherwise.
struct PtpAsker {
    std::uint16_t number = 0;
    std::uint8_t transport = 1;
};

/// Asks all ports; each answers for itself.
std::vector<std::uint8_t> ptpGet(PtpData what, PtpAsker asker, std::uint16_t sequence);
/// Asks to be told of new states of ports for so many seconds.
std::vector<std::uint8_t> ptpSubscribe(PtpAsker asker, std::uint16_t sequence, std::uint16_t seconds);

/// What one port says of itself: one of these.
struct PtpAnswer {
    std::uint16_t port = 0;  ///< its number, from 1
    std::optional<bool> capable{};
    std::optional<std::uint8_t> state{};
    std::optional<std::string> interface {};
    bool operator==(const PtpAnswer&) const = default;
};
/// Nothing for what is no answer of a port, is about something else, or is cut short.
std::optional<PtpAnswer> decodePtp(std::span<const std::uint8_t> message);

/// In words; "initializing", "faulty" and "disabled" are those of a clock that does not run.
std::string ptpStateName(std::uint8_t state);
bool ptpStateRuns(std::uint8_t state);

}  // namespace Linux
