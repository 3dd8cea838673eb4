/// What is to happen to a network and when: "at 5s cut sw2--sw3; at 9s restart sw1 2s".
#pragma once

#include "Plan/Fields.h"
#include "Plan/Network.h"

#include <string>
#include <vector>

namespace Plan {

enum class Deed : std::uint8_t {
    cut,       ///< the link goes down
    mend,      ///< and comes up again
    speed,     ///< another speed is agreed on over it
    loss,      ///< it loses that share of frames
    off,       ///< the device is switched off
    on,        ///< and on again
    restart,   ///< off and, after a while, on
    talk,      ///< the stream is declared
    hush,      ///< and withdrawn
    more,      ///< so many more streams like it
    listen,    ///< the station asks for the stream
    unlisten,  ///< and no longer
    flood,     ///< a hostile station: declares so many streams that nobody knows, as large as can be
};
constexpr auto deedNames = std::to_array<State::EnumName<Deed>>({{Deed::cut, "cut"},
                                                                 {Deed::mend, "mend"},
                                                                 {Deed::speed, "speed"},
                                                                 {Deed::loss, "loss"},
                                                                 {Deed::off, "off"},
                                                                 {Deed::on, "on"},
                                                                 {Deed::restart, "restart"},
                                                                 {Deed::talk, "talk"},
                                                                 {Deed::hush, "hush"},
                                                                 {Deed::more, "more"},
                                                                 {Deed::listen, "listen"},
                                                                 {Deed::unlisten, "unlisten"},
                                                                 {Deed::flood, "flood"}});
constexpr const auto& enumNames(Deed) { return deedNames; }

struct Event {
    Runtime::Duration at{};
    Deed deed{};
    std::string text{};      ///< as it was written: "cut sw2--sw3"
    std::size_t link = 0;    ///< of cut, mend, speed and loss
    std::size_t device = 0;  ///< of off, on, restart, listen, unlisten and flood
    std::size_t stream =
        0;  ///< of talk, hush, more, listen and unlisten; of `more` the first of the new ones
    std::uint64_t count = 0;  ///< of more and flood
    Interface::Speed speed{};
    double loss = 0;
    Runtime::Duration dark{};  ///< of restart
};

/// Of texts with semicolons or line breaks between events, and comments from '#' to the end of the line; in
/// the order of their times.  A name with such things or blanks in it stands between quotes.  Streams that
/// are to come later are added to the network.  Each problem begins with its place; `place` is the first
/// line.
std::vector<Event> readScript(const std::string& text, const Place& place, Network& network,
                              Problems& problems);

}  // namespace Plan
