/// The control socket: where `msrpctl` and other processes come in.  See Control/Session.h for what is
/// spoken.
#pragma once

#include "Control/Session.h"
#include "Control/Socket.h"
#include "Runtime/Loop.h"

#include <cstddef>
#include <list>
#include <optional>
#include <string>

namespace Control {

class Server {
public:
    static constexpr std::size_t sessionLimit = 64;

    /// The loop, and what the services refer to, must outlive the server.
    Server(Runtime::FdLoop& loop, const Session::Services& services);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    /// Ends all sessions and removes the socket.
    ~Server();

    /// Opens the socket.  Empty on success, else one line that names it.
    std::string start(const std::string& path);
    [[nodiscard]] std::size_t sessions() const { return sessions_.size(); }

private:
    void listen();
    void accept();

    Runtime::FdLoop& loop_;
    const Session::Services services_;
    std::string path_;
    Descriptor socket_;
    std::list<Session> sessions_;
    /// Sessions end inside their own functions; what is left of them is dropped from here.
    Runtime::Timer sweep_;
    Runtime::Timer listenAgain_;
    std::optional<Runtime::FdLoop::Watch> readable_;
};

}  // namespace Control
