/// The event loop under everything: one thread, timers, tasks for later in the turn.  Two loops implement it:
/// `VirtualLoop` for tests and simulations, and the epoll loop of the Linux room.
#pragma once

#include "Runtime/Time.h"

#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace Runtime {

class Loop;

/// A one-shot timer.  Destroying it cancels it, but its own handler must not destroy it.  The loop must
/// outlive it.
class Timer {
public:
    Timer(Loop& loop, std::function<void()> fire) : loop_{loop}, fire_{std::move(fire)} {}
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
    ~Timer() { cancel(); }

    /// Fires once at `when`, or in the next turn if that has passed.  Arming an armed timer moves it.
    void armAt(Time when);
    void armIn(Duration span);
    void cancel();
    [[nodiscard]] bool armed() const { return order_ != 0; }
    /// When it will fire; meaningful only while armed.
    [[nodiscard]] Time when() const { return when_; }

private:
    friend class Loop;
    Loop& loop_;
    std::function<void()> fire_;
    Time when_{};
    std::uint64_t order_ = 0;  ///< 0 while not armed
};

class Loop {
public:
    Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;
    virtual ~Loop() = default;

    [[nodiscard]] virtual Time now() const = 0;
    [[nodiscard]] virtual WallTime wallNow() const = 0;

    /// Runs `task` after the current callback and whatever was posted before it, before time moves on.
    void post(std::function<void()> task) { posted_.push_back(std::move(task)); }

protected:
    /// Runs the posted tasks, those included that they post, up to a limit that keeps timers and
    /// sockets from starving; true when some are left.
    bool runPosted();
    /// Fires the timers that are due at `now`, in the order of time and then of arming; tasks that they post
    /// run before the next timer.  Timers armed meanwhile for `now` wait for the next call, and so do the
    /// rest once the clock has moved on by `span`.
    void fireDue(Time now, Duration span = Duration::max());
    [[nodiscard]] bool anythingPosted() const { return !posted_.empty(); }
    [[nodiscard]] bool timerArmed() const { return !timers_.empty(); }
    /// The earliest timer's time; only while `timerArmed()`.
    [[nodiscard]] Time nextDue() const { return timers_.begin()->first.first; }

private:
    friend class Timer;
    std::map<std::pair<Time, std::uint64_t>, Timer*> timers_;
    std::uint64_t nextOrder_ = 1;
    std::vector<std::function<void()>> posted_;
};

/// A loop that can also wait for file descriptors.
class FdLoop : public Loop {
public:
    enum class Ready { readable, writable };
    /// Ends the watch with its destruction.  Must not outlive the loop.
    class Watch {
    public:
        Watch() = default;
        explicit Watch(std::function<void()> end) : end_{std::move(end)} {}
        Watch(Watch&& other) noexcept : end_{std::exchange(other.end_, nullptr)} {}
        Watch& operator=(Watch&& other) noexcept {
            if (this != &other) {
                if (end_) end_();
                end_ = std::exchange(other.end_, nullptr);
            }
            return *this;
        }
        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;
        ~Watch() {
            if (end_) end_();
        }

    private:
        std::function<void()> end_;
    };

    /// Calls `handler` whenever `fd` is readable (or writable), and on errors of it, level-triggered.  At
    /// most one watch for each descriptor and kind.
    [[nodiscard]] virtual Watch watch(int fd, Ready kind, std::function<void()> handler) = 0;
};

}  // namespace Runtime
