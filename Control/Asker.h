/// The other end of the control socket, for programs that have a loop: it asks several things at once and
/// goes on meanwhile.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"
#include "State/Value.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Control {

class Asker {
public:
    using Answered = std::function<void(std::vector<State::Value> replies)>;

    /// `lost` is called when the connection ends, with one line that names the socket.  The loop must outlive
    /// this.
    Asker(Runtime::FdLoop& loop, std::function<void(const std::string& problem)> lost)
        : loop_{loop}, lost_{std::move(lost)} {}
    Asker(const Asker&) = delete;
    Asker& operator=(const Asker&) = delete;

    /// Waits for at most a second.  Empty on success, else one line that names the socket.
    std::string connect(const std::string& path);
    [[nodiscard]] bool connected() const { return static_cast<bool>(socket_); }
    /// Something that was asked has no answer yet.
    [[nodiscard]] bool waiting() const { return wanted_ != 0; }

    /// When it last heard anything, or was asked something.
    [[nodiscard]] Runtime::Time lastSign() const { return lastSign_; }

    /// Asks; `answered` gets the replies, as many and in their order.  Only while connected and not waiting.
    void ask(const std::vector<State::Value>& requests, Answered answered);

private:
    void send();
    void receive();
    void take(std::string_view line);
    void end(const std::string& why);

    Runtime::FdLoop& loop_;
    const std::function<void(const std::string& problem)> lost_;
    std::string path_;
    Runtime::FileDescriptor socket_;
    std::string out_;
    std::string in_;
    std::size_t wanted_ = 0;
    Runtime::Time lastSign_{};
    std::vector<State::Value> replies_;
    Answered answered_;
    Runtime::FdLoop::Watch readable_;
    Runtime::FdLoop::Watch writable_;
};

}  // namespace Control
