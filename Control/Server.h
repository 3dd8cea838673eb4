/// The control socket: where `msrpctl` and other processes come in.  See Control/Session.h for what is
/// spoken.
#pragma once

#include "Control/Session.h"
#include "Control/Socket.h"
#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace Control {

/// Work for clients is done in slices between which the rest of the switch has as long as the slice took.
/// Whose work has cost least comes next, so that a short question waits for nobody's long answers.  When all
/// places are taken a newcomer gets that of the connection that is quiet for longest, of those of the process
/// that has most; clients that may only read make room before others, and for no others.
class Server {
public:
    static constexpr std::size_t sessionLimit = 64;
    /// Octets that all clients together may have sent ahead, and that wait for all their captures.
    static constexpr std::size_t requestMemory = std::size_t{4} << 20;
    static constexpr std::size_t captureMemory = std::size_t{6} << 20;

    /// The loop, and what the services refer to, must outlive the server.
    Server(Runtime::FdLoop& loop, const Session::Services& services);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    /// Ends all sessions and removes the socket.
    ~Server();

    /// Groups of the system.  Where there is none of that name, only the daemon's user and root get in.
    struct Groups {
        const char* all = "msrpd";
        const char* readers = "msrpd-read";
    };
    /// Opens the socket and, under the same path with ".read" behind, one that only reads.  Empty on success,
    /// else one line that names the socket.
    std::string start(const std::string& path) { return start(path, Groups{}); }
    std::string start(const std::string& path, const Groups& groups);
    /// What else an operator should know of that: a line each.
    [[nodiscard]] const std::vector<std::string>& notices() const { return notices_; }
    [[nodiscard]] std::size_t sessions() const { return clients_.size(); }

private:
    /// Where clients come in.
    struct Door {
        std::unique_ptr<ListeningSocket> socket;
        bool reads;
        std::optional<Runtime::FdLoop::Watch> readable{};
    };
    struct Client {
        Client(Server& server, Runtime::FileDescriptor socket, const Peer& peer);
        Session session;
        Runtime::Duration cost{};      ///< of its work, more or less
        std::uint64_t lastServed = 0;  ///< when, in pieces of work
    };

    void listen();
    void accept(Door& door);
    /// False when there is none for this newcomer.
    bool makeRoom(const Peer& newcomer);
    /// Ends the session that has sent most of what is not served.
    void endGreediest();
    void wake();
    void serve();
    [[nodiscard]] Client* next();

    Runtime::FdLoop& loop_;
    const Session::Services services_;
    std::list<Door> doors_;
    std::vector<std::string> notices_;
    TextParts parts_;
    Watches watches_;
    Budget requests_{requestMemory};
    Budget captures_{captureMemory};
    std::list<Client> clients_;
    Runtime::Duration paid_{};  ///< what the client that comes next has had: nobody is owed for idle times
    std::uint64_t served_ = 0;
    Runtime::Timer work_;
    Runtime::Time notBefore_{};  ///< the rest of the switch has its time until then
    /// Sessions end inside their own functions; what is left of them is dropped from here.
    Runtime::Timer sweep_;
    Runtime::Timer listenAgain_;
};

}  // namespace Control
