/// Who of several acts, decided by a lease in the store; and the records of who acts, mirrored there.
///
/// While it acts, all that changes in the records goes to the store after the turn in which it changed; while
/// it does not, the records of the acting one come from there.  A role that cannot be kept is given up before
/// another can have it.
#pragma once

#include "Runtime/Loop.h"
#include "Runtime/Redundancy.h"
#include "State/Database.h"
#include "Store/Finder.h"
#include "Store/Follower.h"
#include "Store/Mirror.h"
#include "Store/Names.h"
#include "Store/Status.h"
#include "Store/Term.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Store {

class Supervisor {
public:
    using Paths = std::set<std::string, std::less<>>;
    struct Options {
        Store::Options store{};
        std::uint64_t seed = 1;  ///< of the random part of waits
        std::string name{};      ///< of the switch
        std::string id{};        ///< of this process, unlike that of any other, now or before
        std::string who{};       ///< of this supervisor, for people
        /// 0: it is the only one, and always acts; the store gets what it does.
        Runtime::Duration lease{std::chrono::seconds{1}};
        Paths outputs{};  ///< records that the acting one writes, and the other takes over
        Paths inputs{};   ///< records that other programs write in the store
        Paths others{};   ///< records that are only to be seen there
        Mirror::Lazy lazy{};
    };
    enum class Tone { notice, warning };
    struct Calls {
        /// All that must be ready before the role is taken.  One line: it cannot be, and is given back.
        std::function<std::string()> begin;
        /// The role has ended; nothing must be done on its behalf any more.
        std::function<void()> end;
        std::function<void(Tone tone, const std::string& line)> report;
    };

    /// `redundancy` follows the role; it may be null without a lease, when `begin` and `end` are never
    /// called.
    Supervisor(Runtime::FdLoop& loop, State::Database& database, Options options,
               std::shared_ptr<Redundancy::RedundancyStatus> redundancy, std::shared_ptr<Status> status,
               Calls calls);
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;
    ~Supervisor();

    /// Empty on success; else one line on what is wrong with the options, and nothing has begun.
    std::string start();
    /// Whether what is done on behalf of the role is still covered by it.  To be asked before anything that
    /// others see, for the process may have stood still.
    [[nodiscard]] bool mayAct() const { return role_ == Role::active && term_.acting(loop_.now()); }
    /// Ends the role when its time has passed: the first thing to do when the process runs again.
    void check();

    /// Begins to hand the role to another that is ready.  One line: it cannot.
    std::string handOver();
    /// Hands the role to another that is ready; what changed last is written before.  `done` is called once,
    /// unless the store does not answer, with whether another has the role, or will when the lease is over.
    void leave(std::function<void(bool toAnother)> done);

private:
    enum class Trouble { link, lease, writing };
    enum class Writing {
        no,
        listing,  ///< what the store has, before it gets everything
        yes,
        refused,  ///< for a while
    };
    [[nodiscard]] bool alone() const { return options_.lease == Runtime::Duration{}; }
    void opened();
    void lost(const std::string& reason);
    void absent(Runtime::Time asked);
    void newsOpened(Connection& server);
    void heard(const std::string& channel, const std::string& text);
    void tick();
    void askLease();
    void answered(Runtime::Time asked, const Reply& reply);
    void notOurs(const Reply& reply);
    void held(Runtime::Time asked);
    void take(std::uint64_t sequence);
    void begin();
    void endRole(Tone tone, const std::string& why);
    void flush();
    void sendBatches();
    void written(const Reply& reply, std::size_t records);
    void writeRefused(const Reply& reply);
    void writeAll();
    void readAll();
    void readAgain();
    void listAgents(const Reply& reply);
    void handTo(const std::string& heir, std::function<void(const std::string& problem)> done);
    void publish();
    /// In the loop, unless this is gone by then.
    void later(std::function<void()> task);
    void say(Tone tone, const std::string& line) { calls_.report(tone, line); }
    void ask(const std::vector<std::string>& words, Connection::Answer answer);
    void troubleIs(Trouble trouble, const std::string& line);
    [[nodiscard]] bool open() { return store_.server() != nullptr; }

    Runtime::FdLoop& loop_;
    const Options options_;
    const Names names_;
    const std::shared_ptr<Redundancy::RedundancyStatus> redundancy_;
    const std::shared_ptr<Status> status_;
    const Calls calls_;
    // Before those that call back as soon as they are made.
    Role role_ = Role::standby;
    std::uint64_t fence_ = 0;     ///< the highest that is known
    Runtime::Time unfitUntil_{};  ///< the role could not be taken: others go first
    bool taking_ = false;         ///< the role is ours, but not all that the store has is here yet
    std::size_t inFlight_ = 0;    ///< batches
    bool flushing_ = false;       ///< a turn's end is waited for
    Writing writing_ = Writing::no;
    bool leaving_ = false;                  ///< the role is being handed over, nothing is done on its behalf
    std::string heir_;                      ///< who could take over now
    std::array<std::string, 3> trouble_{};  ///< of each kind, until it is over
    Runtime::Time readNext_{};              ///< after a store that could not be read
    std::function<void()> flushed_;         ///< called when nothing waits to be written
    std::optional<double> clockZero_;
    std::string foreign_;  ///< the lease of another that writes under our name, as it was last
    /// Who finds it expired must not touch anything here.
    const std::shared_ptr<char> life_ = std::make_shared<char>();

    Term term_;
    Mirror mirror_;
    Follower follower_;  ///< of what the acting one writes
    Follower inputs_;    ///< of what other programs write
    Finder store_;       ///< for questions
    Finder news_;        ///< for what is told unasked
    Runtime::Timer tick_;
    Runtime::Timer expiry_;
    Runtime::Timer lazy_;
    Runtime::Timer again_;  ///< after a batch that was refused
};

}  // namespace Store
