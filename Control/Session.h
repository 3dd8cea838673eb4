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
/// A client that may only read is refused "set" and every command that may change something.
///
/// What else than these words can be asked for, and what it answers, is the daemon's business (`Commands`).
///
/// A watch answers with the current value, and again when it has changed: at once after a quiet time, and
/// while it goes on changing at most ten times a second, or once a second when the text is long.  A watcher
/// that does not keep up gets the latest value once it does, not every one.
///
/// A long value is told over several turns of the loop, and each entry as it is at its moment; the line is a
/// whole JSON object all the same.  Such a value is told again even when it is as it was before.
///
/// After the reply to a capture each frame that the port receives or sends is told as
///     {"now": 12.6, "capture": "swp1", "time": 12.5, "direction": "received", "frame": "0180c2..."}
/// with the time at which it passed, the other direction being "sent", and the whole Ethernet frame, padding
/// included, in hexadecimal.  Frames for a client that does not keep up are dropped; "dropped": 3 in the next
/// one says how many of that port are missing before it.  Watches and captures end with the connection.
///
/// Memory is bounded: no request is served while replies wait to be fetched, and long texts are cut short in
/// errors.  When all clients together have sent more than can be kept, the one that has sent most loses its
/// connection, so one that has sent its share of that (64 KiB of 64 clients) never does.  A client that
/// fetches nothing of what waits for it for `readPatience`, or neither asks, watches nor captures for
/// `askPatience`, loses its connection.
#pragma once

#include "Control/Budget.h"
#include "Control/Captures.h"
#include "Control/Commands.h"
#include "Control/FrameSource.h"
#include "Control/Peer.h"
#include "Control/RecordAccess.h"
#include "Control/RecordText.h"
#include "Control/Socket.h"
#include "Control/Watches.h"
#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
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
    /// Octets of replies beyond which no further request is served until they were fetched.
    static constexpr std::size_t replyLimit = std::size_t{1} << 16;
    static constexpr std::size_t watchLimit = 32;
    /// Octets of a path, of a field, and of an id as JSON; and of an error, before it is cut short.
    static constexpr std::size_t pathLimit = 1024;
    static constexpr std::size_t idLimit = 256;
    static constexpr std::size_t errorLimit = 4096;
    static constexpr Runtime::Duration readPatience = std::chrono::seconds{30};
    static constexpr Runtime::Duration askPatience = std::chrono::minutes{5};

    /// What a client gets at, and what it shares with the others.  All of it must outlive the session.
    struct Services {
        RecordAccess& records;
        FrameSource& frames;
        const Commands& commands;
    };
    struct Shared {
        TextParts& parts;
        Watches& watches;
        Budget& requests;  ///< octets that have come in and are not served
        Budget& captures;
    };
    struct Notices {
        std::function<void()> ready;  ///< the session has something to do in a turn
        std::function<void()> ended;  ///< once; must not destroy the session at once
        /// No memory is left for what has come in: sessions must end, perhaps this one, until some is.
        std::function<void()> crowded;
    };

    /// `socket` must be connected.  The loop must outlive the session.
    Session(Runtime::FdLoop& loop, const Services& services, const Shared& shared,
            Runtime::FileDescriptor socket, const Peer& peer, Notices notices);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { end(); }

    [[nodiscard]] bool over() const { return !socket_; }
    /// Whether there is something to do, and the client has fetched what was said before.
    [[nodiscard]] bool ready();
    /// Does a piece of it that takes a millisecond or so; a single request may take longer.
    void turn();
    /// Ends it; `reason` is told to a client that has fetched everything.
    void end(const std::string& reason = {});

    /// Octets that have come in and are not served.
    [[nodiscard]] std::size_t unserved() const { return in_.size(); }
    /// When the client last asked for something or fetched something.
    [[nodiscard]] Runtime::Time lastSign() const { return lastSign_; }
    /// Who made the connection.
    [[nodiscard]] const Peer& peer() const { return peer_; }

private:
    struct Watch {
        /// The text to tell now; null when it is the one that was told last.
        std::shared_ptr<TextPart> take();

        std::shared_ptr<Watches::Topic> topic;
        std::uint64_t told = 0;                 ///< the version that was
        std::optional<std::size_t> lastHash{};  ///< of its text, when that was short
    };
    /// What is answered: a value, an error, or the text of a record.
    struct Reply {
        State::Object members{};
        Answer answer{};
        std::shared_ptr<TextPart> text{};
    };

    void receive();
    /// Watches what is to be waited for, and minds how long.
    void settle();
    void serveRequests();
    void serveCaptures();
    void serveRequest(std::string_view line);
    void execute(const State::Value& request, Reply& reply);
    void get(const std::string& path, Reply& reply);
    void watch(const std::string& path, Reply& reply);
    void capture(const std::string& port, Reply& reply);
    void send(Reply reply);
    /// The client is at that part of a text.
    void append(std::shared_ptr<TextPart> part);
    void flush();
    [[nodiscard]] bool requestWaits() const { return newline_ != std::string::npos; }
    [[nodiscard]] std::vector<Watch>::iterator dueWatch();

    Runtime::FdLoop& loop_;
    const Services services_;
    const Shared shared_;
    Runtime::FileDescriptor socket_;
    const Notices notices_;
    const Peer peer_;
    std::string in_;
    std::size_t newline_ = std::string::npos;  ///< the first one in `in_`
    std::string out_;
    std::shared_ptr<TextPart> text_;  ///< whose end `out_` ends with, and that goes on
    bool heardAll_ = false;           ///< the client will send nothing more
    std::vector<Watch> watches_;
    Captures captures_;
    Runtime::Time lastSign_;
    Runtime::Time waitsSince_{};  ///< what is to be fetched, or since some of it was
    Runtime::Timer patience_;
    std::optional<Runtime::FdLoop::Watch> readable_;
    std::optional<Runtime::FdLoop::Watch> writable_;
};

}  // namespace Control
