/// One client of the control socket.
///
/// Requests and replies are JSON objects, one on each line:
///     {"op": "get", "path": "msrp/config"}                          {"now": 12.5, "value": {...}}
///     {"op": "set", "path": "msrp/cliConfig", "field": "srClassAPriority", "value": 3}      {"now": 12.5}
///     {"op": "watch", "path": "msrp/status"}       {"now": 12.5, "watch": "msrp/status", "value": {...}}
///     {"op": "list"}                               {"now": 12.5, "value": {"msrp/config": {"type": ...}}}
///     {"op": "audit", "repair": true}               {"now": 12.5, "value": {"1": "..."}}
///     {"op": "capture", "path": "swp1"}            {"now": 12.5, "capture": "swp1", "value": null}
/// "now" is the daemon's clock in seconds, the one that times in records refer to.  What cannot be done is
/// answered by {"now": ..., "error": "..."}.  An "id" in a request comes back in its reply.
///
/// What else than these words can be asked for, and what it answers, is the daemon's business (`Commands`).
///
/// A watch answers with the current value, and again after each turn of the loop that changed it.  Memory is
/// bounded: no request is read while replies wait to be fetched, and a watcher that does not keep up gets the
/// latest value once it does, not every one.
///
/// After the reply to a capture each frame that the port receives or sends is told as
///     {"now": 12.6, "capture": "swp1", "time": 12.5, "direction": "received", "frame": "0180c2..."}
/// with the time at which it passed, the other direction being "sent", and the whole Ethernet frame, padding
/// included, in hexadecimal.  Frames for a client that does not keep up are dropped; "dropped": 3 in the next
/// one says how many of that port are missing before it.  Watches and captures end with the connection.
#pragma once

#include "Control/Captures.h"
#include "Control/Commands.h"
#include "Control/FrameSource.h"
#include "Control/RecordAccess.h"
#include "Control/Socket.h"
#include "Runtime/Loop.h"
#include "State/ChangeFeed.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Control {

class Session {
public:
    /// Longest request, octets.
    static constexpr std::size_t requestLimit = std::size_t{1} << 20;
    /// Octets of replies beyond which no further request is served until some were fetched.
    static constexpr std::size_t replyLimit = std::size_t{1} << 20;
    static constexpr std::size_t watchLimit = 32;

    /// What a client gets at.  All of it must outlive the session.
    struct Services {
        RecordAccess& records;
        FrameSource& frames;
        const Commands& commands;
    };

    /// `socket` must be connected.  `ended` is called once when the session is over; it must not destroy the
    /// session at once.  The loop must outlive it.
    Session(Runtime::FdLoop& loop, const Services& services, Descriptor socket, std::function<void()> ended);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    [[nodiscard]] bool over() const { return !socket_; }

private:
    struct Watch {
        std::string path;
        std::size_t lastHash = 0;  ///< of the value that was sent last
        bool due = false;
        std::unique_ptr<State::ChangeFeed> feed;
    };

    void receive();
    /// Serves requests, watches and captures as far as the client fetches the replies.
    void serve();
    void serveRequests();
    void serveWatches();
    void serveCaptures();
    void serveRequest(std::string_view line);
    [[nodiscard]] Answer execute(const State::Value& request, State::Object& reply);
    [[nodiscard]] Answer watch(const std::string& path, State::Object& reply);
    [[nodiscard]] Answer capture(const std::string& port, State::Object& reply);
    void send(State::Object reply);
    void flush();
    void end();

    Runtime::FdLoop& loop_;
    const Services services_;
    Descriptor socket_;
    std::function<void()> ended_;
    std::string in_;
    std::string out_;
    bool heardAll_ = false;  ///< the client will send nothing more
    std::vector<std::unique_ptr<Watch>> watches_;
    Captures captures_;
    /// Requests and frames that wait although the client fetched everything: others have their turn first.
    Runtime::Timer nextTurn_;
    std::optional<Runtime::FdLoop::Watch> readable_;
    std::optional<Runtime::FdLoop::Watch> writable_;
};

}  // namespace Control
