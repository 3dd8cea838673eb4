/// The other end of the control socket, for programs that can wait.
#pragma once

#include "Control/Socket.h"
#include "State/Value.h"

#include <optional>
#include <string>

namespace Control {

class Client {
public:
    /// Seconds within which a daemon that is alive answers.
    static constexpr unsigned patience = 10;

    /// Waits for its turn at most `seconds`.  Empty on success, else one line that names the socket.
    std::string connect(const std::string& path, unsigned seconds = patience);

    /// Sends one request.  Empty on success, else one line that names the socket.
    std::string send(const State::Value& request);
    /// Waits for the next reply, at most `seconds` (0: for ever).  Empty on success, else one line: what the
    /// daemon refuses, or one that names the socket.
    std::string receive(State::Value& reply, unsigned seconds = patience);
    /// Sends one request and waits for its reply.
    std::string ask(const State::Value& request, State::Value& reply);
    /// Hangs up.  Replies that have come in are still received, and then it is as if the other side had
    /// closed the socket.  May be called from a signal handler.
    void hangUp() const;

private:
    [[nodiscard]] std::string failure(const std::string& what) const {
        return "socket " + path_ + ": " + what;
    }

    std::string path_;
    Runtime::FileDescriptor socket_;
    std::string in_;
};

}  // namespace Control
