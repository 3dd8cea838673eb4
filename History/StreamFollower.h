/// Follows the streams in "msrp/status", published or on their way to be, and tells the journal what becomes
/// of them.
///
/// What changes in one callback of the loop is looked at right after it, as one step from the state that was
/// told last to the present one: the many small changes of one step are one or two events.  The time of an
/// event is that of its first change.  Times of stages are taken at the changes themselves.
#pragma once

#include "History/Gone.h"
#include "History/Journal.h"
#include "History/Reservations.h"
#include "History/Streams.h"
#include "History/Times.h"
#include "Msrp/types/Status.h"
#include "Runtime/Loop.h"
#include "Switch/Outcomes.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace History {

class StreamFollower {
public:
    struct Records {
        std::shared_ptr<const Msrp::Status> status;
        std::shared_ptr<Journal> journal;
        std::shared_ptr<Gone> gone;
        std::shared_ptr<Times> times;
        std::shared_ptr<Reservations> reservations;
    };

    /// `kernel`: a data plane tells its outcomes.  The loop must outlive it.
    StreamFollower(Runtime::Loop& loop, Records records, bool kernel);
    StreamFollower(const StreamFollower&) = delete;
    StreamFollower& operator=(const StreamFollower&) = delete;

    // The data plane's outcomes.
    void groupForwarded(const Switch::GroupId& group, IntfId intf);
    void queuesShaped(IntfId intf);
    /// Looks at all that has changed, now; for the end of the process.
    void finish();

private:
    struct Seen {
        StreamState told;
        Runtime::Time talker{};
        bool due = false;
        Runtime::Time since{};  ///< of the first change that was not looked at
    };
    using Streams = std::map<std::uint64_t, Seen>;

    void changed(const State::Change& change);
    void streamChanged(const Msrp::StreamData& stream, const State::Change& change);
    void portChanged(std::uint64_t id, const Msrp::StreamData& stream, IntfId intf, std::string_view field);
    /// The stream's entry, made when there is none.
    Seen& seen(std::uint64_t id);
    void mark(std::uint64_t id, Seen& stream);
    void lookAtSome();
    void look(std::uint64_t id, Seen& stream);

    void declared(Reservation& reservation, Runtime::Time when);
    void admitted(std::uint64_t id, const Msrp::StreamData& stream, Reservation& reservation);
    void released(std::uint64_t id, Reservation& reservation);
    void shaped(Reservation& reservation, Runtime::Time Reservation::*stage, Stage name);

    Runtime::Loop& loop_;
    const Records records_;
    const bool kernel_;
    Streams streams_;
    Streams::iterator last_ = streams_.end();  ///< found last: changes of one stream come together
    std::vector<std::uint64_t> due_;
    std::size_t looked_ = 0;  ///< of those that are due
    std::vector<Event> events_;
    /// Reservations that the kernel has not carried out yet, as far as a data plane tells.
    std::map<std::pair<Switch::GroupId, IntfId>, std::uint64_t> groupDue_;
    std::set<std::pair<IntfId, std::uint64_t>> queueDue_;
    Runtime::Timer again_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    State::Reactor reactor_;
};

}  // namespace History
