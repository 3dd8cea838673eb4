/// The event loop on a real machine: epoll for descriptors, the monotonic clock for timers.
///
/// A turn waits until something is ready, calls the handler of each ready descriptor once, then fires the due
/// timers, also those that are armed for at once meanwhile: a received frame is answered, and what was said
/// of it logged, without another look at the descriptors. What a handler posts runs right after it.  A
/// descriptor that still has more comes again in the next turn: the others have theirs in between.
#pragma once

#include "Runtime/Delays.h"
#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <sys/epoll.h>
#include <unordered_map>

namespace Linux {

class EpollLoop : public Runtime::FdLoop {
public:
    EpollLoop();

    /// CLOCK_MONOTONIC, read anew at each call.
    [[nodiscard]] Runtime::Time now() const override;
    [[nodiscard]] Runtime::WallTime wallNow() const override;

    /// A handler should do a bounded amount of work: while it runs, nobody else does.  It may end any watch,
    /// its own included, and close the descriptor after that.
    [[nodiscard]] Watch watch(int fd, Ready kind, std::function<void()> handler) override;

    /// What is done first in each turn: the process may have stood still before it.
    void firstIs(std::function<void()> first) { first_ = std::move(first); }

    /// Runs until `stop`.
    void run();
    /// Ends `run` after the current turn, or the next `run` at once.
    void stop() { stopping_ = true; }
    /// Runs until `condition` holds, looked at once in a turn, at most for `span`; tells whether it holds.
    bool runUntil(const std::function<bool()>& condition, Runtime::Duration span);

    /// How it fares, since the start or since they were last cleared.
    [[nodiscard]] const Runtime::LoopDelays& delays() const { return delays_; }
    void delaysClear() { delays_ = {}; }

private:
    using Handler = std::shared_ptr<const std::function<void()>>;
    struct Watched {
        int fd = -1;
        Handler readable;
        Handler writable;
        Handler& of(Ready kind) { return kind == Ready::readable ? readable : writable; }
    };

    std::function<void()> first_;
    void turn();
    /// How long epoll shall wait; none: for ever.
    [[nodiscard]] std::optional<Runtime::Duration> timeout() const;
    /// How many events it has got.
    int wait(std::span<epoll_event> events) const;
    void fireTimers();
    void call(std::uint64_t serial, Ready kind);
    void end(std::uint64_t serial, Ready kind);
    void control(int operation, std::uint64_t serial, const Watched& watched) const;

    Runtime::FileDescriptor epoll_;
    /// By a number that is never used again: an event that was fetched before its watch ended finds nobody,
    /// even if the descriptor's number has a new owner by then.
    std::unordered_map<std::uint64_t, Watched> watched_;
    std::unordered_map<int, std::uint64_t> serialOf_;
    std::uint64_t nextSerial_ = 1;
    Runtime::LoopDelays delays_;
    bool postedLeft_ = false;
    bool stopping_ = false;
};

}  // namespace Linux
