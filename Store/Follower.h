/// Brings records to what the store has of them.
///
/// It reads, and is told which paths have changed; what it reads is what the store has by then, so the order
/// of the news does not matter.  What is wrong is refused field by field, and said.
#pragma once

#include "State/Database.h"
#include "Store/Names.h"
#include "Store/Reply.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Store {

class Follower {
public:
    using Answer = std::function<void(const Reply&)>;
    /// Asks the store; answers come in the order of the questions, or never when the store is lost.
    using Ask = std::function<void(std::vector<std::string> words, Answer answer)>;
    using Report = std::function<void(const std::string& line)>;

    /// `paths`: the root records that it brings; those that the database does not have are passed over.
    /// `clockZero` is the wall-clock time in seconds at which our clock was at 0.
    Follower(State::Database& database, const Names& names, std::set<std::string, std::less<>> paths,
             double clockZero, Ask ask, Report report);
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;
    ~Follower();

    /// Reads everything; `done` is called when all is there that the store had when this was called.  What
    /// was under way is given up.
    void read(std::function<void()> done);
    /// The store has told of a batch: its number, and a path on each line.
    void told(std::string_view message);
    /// Those paths are to be read.
    void changed(const std::vector<std::string>& paths);
    /// The store is lost: no answer will come any more.
    void lost();

    /// All batches up to this number are in the records; empty before the first reading.
    [[nodiscard]] std::optional<std::uint64_t> sequence() const;
    /// What the store has, of all records.
    [[nodiscard]] const std::set<std::string, std::less<>>& known() const { return known_; }

private:
    void queue(std::string path);
    void readSome();
    void readPath(const std::string& path);
    void taken(const std::string& path, const Reply& fields, bool there);
    void restore(const std::string& path, const Reply& fields);
    void remove(const std::string& path);
    void removeOthers();
    void finish();
    /// Whether the path is of a record that we bring.
    [[nodiscard]] bool ours(std::string_view path) const;
    void refuse(const std::string& path, const std::string& what);

    State::Database& database_;
    const Names names_;
    const std::set<std::string, std::less<>> paths_;
    const double clockZero_;
    const Ask ask_;
    const Report report_;
    double shift_ = 0.0;

    std::uint64_t reading_ = 0;  ///< answers to an earlier reading are of no use
    bool listed_ = false;
    std::set<std::string, std::less<>> known_;
    std::deque<std::string> queue_;  ///< to be read, in the order of the news
    std::set<std::string, std::less<>> queued_;
    std::vector<std::string> early_;  ///< news that came before the list
    std::size_t open_ = 0;            ///< questions without an answer
    std::function<void()> done_;
    std::uint64_t told_ = 0;     ///< the number of the last batch that we were told of
    std::uint64_t applied_ = 0;  ///< and of the last that is in the records
    bool complete_ = false;
    std::set<std::string, std::less<>> refused_;  ///< lines that were said since the last reading
};

}  // namespace Store
