/// What people and other processes may do with the state database: read all of it, write some of it.
#pragma once

#include "State/Database.h"
#include "State/Walk.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace Control {

/// A value, or one line that says why there is none.
struct Answer {
    State::Value value{};
    std::string error{};
    std::optional<State::Walk> walk{};  ///< in place of a value: one that is long
};

class RecordAccess {
public:
    /// `writable`: the paths of the records that may be written.  The database must outlive this.
    RecordAccess(State::Database& database, std::set<std::string, std::less<>> writable)
        : database_{database}, writable_{std::move(writable)} {}

    /// Asked before a record is written, with a patch that fits it: one line that says why not, or nothing.
    using Guard = std::function<std::string(std::string_view record, const State::Value& patch)>;
    void guardIs(Guard guard) { guard_ = std::move(guard); }
    /// A field, entry or record that somebody has changed.
    struct Written {
        std::string_view path;
        const State::Value& before;  ///< null: there was none
        const State::Value& after;
        std::string_view who;
        /// "msrp/cliConfig/srClassAPriority is now 3, was 2: user 0, process 1234"
        [[nodiscard]] std::string text() const;
    };
    void writtenIs(std::function<void(const Written& written)> told) { written_ = std::move(told); }
    /// Told of every patch that was written.
    using Follower = std::function<void(std::string_view record, const State::Value& patch)>;
    void followerIs(Follower follower) { follower_ = std::move(follower); }
    /// That record is somebody else's to write from now on.
    void writableDel(const std::string& path) { writable_.erase(path); }

    /// The way through a record, or through what `path` names below it ("msrp/config/intfEnable/swp1");
    /// nothing, and why, when there is none.
    [[nodiscard]] std::optional<State::Walk> read(std::string_view path, std::string& problem) const;
    /// Writes one field, entry or whole record; null removes an entry.  `who` is for those who are told.
    [[nodiscard]] Answer set(std::string_view path, const State::Value& value, std::string_view who = {});
    /// For each record its type and whether it may be written.
    [[nodiscard]] Answer list() const;

    /// The record whose changes may change what `get(path)` answers; null, and why, when nothing can ever
    /// stand there.
    [[nodiscard]] std::shared_ptr<const State::Entity> watchable(std::string_view path,
                                                                 std::string& problem) const;

private:
    State::Database& database_;
    std::set<std::string, std::less<>> writable_;
    Guard guard_;
    std::function<void(const Written&)> written_;
    Follower follower_;
};

}  // namespace Control
