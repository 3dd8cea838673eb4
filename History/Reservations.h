/// "history/stages": when each reservation that somebody asks for came to each of its stages.
#pragma once

#include "Runtime/Time.h"
#include "State/Record.h"
#include "Switch/IntfId.h"
#include "Switch/Refusals.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

namespace History {

/// Of a stream to a port, on the daemon's clock; zero where it has not come to that.  Those of the admission
/// and of the kernel are of the latest one, and go with it.
struct Reservation {
    IntfId intf;
    Runtime::Time talker{};     ///< the talker was heard
    Runtime::Time declared{};   ///< it was declared to the port
    Runtime::Time asked{};      ///< a listener was heard
    Runtime::Time admitted{};   ///< bandwidth was given
    Runtime::Time group{};      ///< the kernel forwards
    Runtime::Time queue{};      ///< the kernel shapes for it
    Switch::GroupId awaited{};  ///< what is to be forwarded, once it is admitted
};

class Reservations : public State::Record<Reservations> {
public:
    static constexpr std::string_view type = "History::Reservations";

    /// Null when nobody asks for the stream there.
    [[nodiscard]] Reservation* find(std::uint64_t stream, IntfId intf);
    /// Made when there is none.
    Reservation& reservationIs(std::uint64_t stream, IntfId intf);
    void reservationDel(std::uint64_t stream, IntfId intf);

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::derivedEntries<Reservations>(
            "stream",
            [](const Reservations& r, const State::From& from, std::size_t most) {
                return r.entries(from, most);
            },
            entriesSchema));
    }

private:
    [[nodiscard]] State::Object entries(const State::From& from, std::size_t most) const;
    static State::Schema entriesSchema();

    std::map<std::uint64_t, std::vector<Reservation>> streams_;
};

}  // namespace History

// Made once, in the source file beside this header.
extern template class State::Record<History::Reservations>;
