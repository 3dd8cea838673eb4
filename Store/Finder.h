/// Keeps a connection to the Redis server that is to be used: one at a fixed address, or the master of which
/// Sentinels know where it is.
#pragma once

#include "Runtime/Loop.h"
#include "Store/Address.h"
#include "Store/Connection.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace Store {

struct Options {
    std::vector<std::string> addresses{};  ///< one, the server's; or with `master` those of Sentinels
    std::string master{};                  ///< the name that Sentinels know the servers by
    Access access{};                       ///< to the server
    std::string sentinelUser{};            ///< as in `Access`; TLS is used with Sentinels as with the server
    std::string sentinelPasswordFile{};
    Runtime::Duration patience = std::chrono::seconds{2};     ///< for each connection and answer
    Runtime::Duration longestWait = std::chrono::seconds{2};  ///< between two searches
    Limits limits{};
};

/// What is wrong with them, one line; empty: nothing.
std::string problemOf(const Options& options);

/// It connects anew without end: at once when a connection that has lasted is lost, then after waits that
/// grow from 50 ms to the longest.  Sentinels are asked in turn, and the master must say itself that it is
/// one.
class Finder {
public:
    /// A connection that has been open for so long has lasted.
    static constexpr Runtime::Duration lasting = std::chrono::seconds{2};

    /// All are called by the loop, never by a call of the owner's, who may destroy the finder in any of them.
    /// None may be empty.
    struct Handlers {
        /// The server can be asked, until `lost`; the owner neither opens nor closes the connection.  It is
        /// always the same object.
        std::function<void(Connection& server)> opened;
        /// Only after `opened`, and once for each.
        std::function<void(const std::string& reason)> lost;
        /// One line for a log: what is wrong, or that it is good again.  Each trouble is told once, and then
        /// not again before a connection has lasted; that ends all troubles, which is when `good` is told.
        std::function<void(bool good, const std::string& line)> said;
        /// As `Connection::Handlers::pushed`.
        std::function<void(const std::string& channel, const std::string& payload)> pushed;
        /// No program listens at the server's fixed address, as an attempt has found that began at `asked`.
        /// May be empty.
        std::function<void(Runtime::Time asked)> absent{};
    };

    /// `seed` is of the waits' random part.  The loop must outlive this.
    Finder(Runtime::FdLoop& loop, Options options, std::uint64_t seed, Handlers handlers);
    Finder(const Finder&) = delete;
    Finder& operator=(const Finder&) = delete;

    /// To be called once.  Empty on success; else one line on what is wrong with the options, and nothing has
    /// begun.
    std::string start();
    /// The owner has found that this server will not do, like one that answers READONLY: it is lost for that
    /// reason, and searched for anew.  Nothing happens where none is open.
    void leave(const std::string& reason);
    /// Null while none is open.
    [[nodiscard]] Connection* server() { return open_ ? &server_ : nullptr; }
    /// Where it is, or was looked for last.
    [[nodiscard]] const std::string& place() const { return place_; }

private:
    void search();
    void askSentinel();
    void takePlace(const Reply& reply);
    void checkRole();
    void becomeOpen();
    void serverLost(const std::string& reason);
    void failed(const std::string& line);
    void waitAndSearch();
    void lasted();
    /// False when the owner has destroyed this meanwhile.
    bool tell(bool good, const std::string& line);
    void later(std::function<void()> task);

    Runtime::FdLoop& loop_;
    const Options options_;
    std::mt19937_64 random_;
    const std::shared_ptr<const Handlers> handlers_;
    /// Who finds it expired must not touch anything here.
    const std::shared_ptr<char> life_ = std::make_shared<char>();

    std::vector<Address> addresses_;
    std::size_t asking_ = 0;  ///< which of the addresses; a Sentinel that could help is asked first again
    std::size_t asked_ = 0;   ///< how many Sentinels without success since the last wait
    std::string place_;       ///< of the server
    bool open_ = false;
    Runtime::Duration wait_{};
    std::set<std::string> told_;  ///< of the present troubles
    bool saidGood_ = false;
    Connection sentinel_;
    Connection server_;
    Runtime::Timer waited_;
    Runtime::Timer lasted_;
};

}  // namespace Store
