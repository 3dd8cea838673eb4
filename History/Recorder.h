/// The history of a switch: the records of it, and those who follow what happens and write them.
///
/// Nobody else knows of it: what it tells it has seen in the records of others, or was told by those who let
/// operators in (`configured`) and who carry things out in the kernel (`Switch::Outcomes`).
#pragma once

#include "History/PortFollower.h"
#include "History/StreamFollower.h"
#include "State/Database.h"
#include "Switch/Outcomes.h"
#include "Switch/Refusals.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace History {

/// Makes the records: "history/events", "history/gone", "history/times", "history/stages".
void populate(State::Database& database);

class Recorder {
public:
    struct Options {
        std::size_t octets = Journal::defaultOctets;
        /// Where the history outlives the process; empty: nowhere.
        std::string directory{};
        /// Who says when the kernel has carried something out; null: nobody does.  Told of this as long as it
        /// lives.
        std::shared_ptr<Switch::Outcomes> outcomes{};
    };
    /// Begins the journal.  The database must have all records; it and the loop must outlive it.
    Recorder(Runtime::Loop& loop, State::Database& database, const Options& options);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder();

    /// Why the journal is kept in memory only though it should not be; empty: all is well.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    /// The daemon has come to run; says of the life before how it ended.
    void started(const std::string& version);
    /// It ends as it should.
    void stopped(const std::string& why);
    /// An operator has changed what stands at a path: one event for each field or entry below it that is
    /// another one now.  `by`: who, empty where that is not known.
    void configured(std::string_view path, const State::Value& before, const State::Value& after,
                    std::string_view by);

private:
    void groupRefused(const Switch::GroupId& group);
    void queuesRefused(IntfId intf);
    void tellRefusal(std::string what, IntfId intf, const Switch::Refusal* refusal);
    void tellDaemon(std::string text);

    State::Database& database_;
    const std::shared_ptr<Journal> journal_;
    const std::shared_ptr<const Switch::Refusals> refusals_;
    const std::shared_ptr<Switch::Outcomes> outcomes_;
    const std::string problem_;
    StreamFollower streams_;
    PortFollower ports_;
    State::Reactor refusalsChanged_;
};

/// Reads what a request asks of the journal: members "after" (a number), "since" (seconds since 1970),
/// "stream", "port", "last".  Nothing, and what is wrong, when it cannot be read.
[[nodiscard]] std::optional<Filter> parseFilter(const State::Value& request, std::string& problem);

}  // namespace History
