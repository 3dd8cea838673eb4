/// Brings records to what the store has of them.
///
/// It reads, and is told which paths have changed; what it reads is what the store has by then, so the order
/// of the news does not matter.  What is wrong is refused field by field, and said.
#pragma once

#include "State/Database.h"
#include "Store/Members.h"
#include "Store/Names.h"
#include "Store/Reply.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Store {

class Follower {
public:
    using Report = std::function<void(const std::string& line)>;

    /// Who writes the records: an agent like this one, which says in the store whether it has written all of
    /// them, and what its clock is; or programs of another kind.
    enum class Writer { agent, others };

    /// `paths`: the root records that it brings; those that the database does not have are passed over.
    /// `clockZero` is the wall-clock time in seconds at which our clock was at 0.
    Follower(State::Database& database, const Names& names, Writer writer,
             std::set<std::string, std::less<>> paths, double clockZero, Ask ask, Report report);
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;
    ~Follower();

    /// Reads everything; `done` is called when all is there that the store had when this was called.  What
    /// was under way is given up.  A store that has nothing of a root record, or is only being filled, takes
    /// nothing away from it.
    void read(std::function<void()> done);
    /// Nothing has been read, and nothing is under way: the store would not say what it has.
    [[nodiscard]] bool idle() const { return !reads_; }
    /// The store has told of a batch: its number, and a path on each line.
    void told(std::string_view message);
    /// Those paths are to be read.
    void changed(const std::vector<std::string>& paths);
    /// The store is lost: no answer will come any more.
    void lost();

    /// All batches up to this number are in the records; empty before the first reading.
    [[nodiscard]] std::optional<std::uint64_t> sequence() const;

private:
    void queue(std::string path);
    void readSome();
    void readPath(const std::string& path);
    void taken(const std::string& path, const Reply& fields, bool there);
    void restore(const std::string& path, const Reply& fields);
    void remove(const std::string& path);
    void removeOthers();
    /// The store does not answer as it should: it is to be read again.
    void giveUp(const Reply& reply);
    void finish();
    /// Whether the path is of a record that we bring.
    [[nodiscard]] bool ours(std::string_view path) const;
    void refuse(const std::string& path, const std::string& what);

    State::Database& database_;
    const Names names_;
    const Writer writer_;
    const std::set<std::string, std::less<>> paths_;
    const double clockZero_;
    const Ask ask_;
    const Report report_;
    double shift_ = 0.0;

    std::uint64_t reading_ = 0;  ///< answers to an earlier reading are of no use
    bool reads_ = false;
    bool listed_ = false;
    bool whole_ = false;  ///< the store has all that its writer has
    std::set<std::string, std::less<>> known_;
    std::deque<std::string> queue_;  ///< to be read, in the order of the news
    std::set<std::string, std::less<>> queued_;
    std::vector<std::string> early_;  ///< news that came before the list
    std::size_t open_ = 0;            ///< questions without an answer
    std::function<void()> done_;
    std::uint64_t told_ = 0;     ///< the number of the last batch that we were told of
    std::uint64_t applied_ = 0;  ///< and of the last that is in the records
    bool complete_ = false;
    std::string problem_;  ///< why the store could not be read last
    /// Lines that were said, by the paths that they are about.
    std::map<std::string, std::set<std::string>, std::less<>> refused_;
    std::set<std::string> refusedNow_;  ///< of the path that is being taken over
};

}  // namespace Store
