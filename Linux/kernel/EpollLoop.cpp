#include "Linux/kernel/EpollLoop.h"

#include "Runtime/Assert.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <limits>
#include <sys/epoll.h>

namespace Linux {

using Runtime::Duration;
using Runtime::Time;

namespace {

/// Descriptors served in one turn.  epoll moves the served ones to the end of its list, so nobody is left
/// out.
constexpr std::size_t batch = 64;
/// After so long, timers that are due as well wait until the descriptors had another turn.
constexpr Duration timersSpan = std::chrono::milliseconds{3};

}  // namespace

EpollLoop::EpollLoop() : epoll_{epoll_create1(EPOLL_CLOEXEC)} {
    Runtime::require(bool{epoll_}, "no descriptors left for the event loop");
}

namespace {
Duration readClock(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return std::chrono::seconds{t.tv_sec} + std::chrono::nanoseconds{t.tv_nsec};
}
}  // namespace

Time EpollLoop::now() const { return Time{readClock(CLOCK_MONOTONIC)}; }
Runtime::WallTime EpollLoop::wallNow() const { return Runtime::WallTime{readClock(CLOCK_REALTIME)}; }

void EpollLoop::run() {
    postedLeft_ = runPosted();
    while (!stopping_) turn();
    stopping_ = false;
}

bool EpollLoop::runUntil(const std::function<bool()>& condition, Duration span) {
    Runtime::Timer wake{*this, [] {}};
    wake.armIn(span);
    postedLeft_ = runPosted();
    while (!condition()) {
        if (!wake.armed()) return false;
        turn();
    }
    return true;
}

void EpollLoop::turn() {
    std::array<epoll_event, batch> events{};
    const int count = wait(events);
    const Time begun = now();
    if (first_) first_();
    // Interrupted by a signal, count is negative and the turn goes on without events.
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        const std::uint64_t serial = event.data.u64;
        constexpr std::uint32_t broken = EPOLLERR | EPOLLHUP;
        if ((event.events & (EPOLLIN | broken)) != 0) call(serial, Ready::readable);
        if ((event.events & (EPOLLOUT | broken)) != 0) call(serial, Ready::writable);
    }
    fireTimers();
    postedLeft_ = runPosted();
    delays_.turns.add(now() - begun);
}

void EpollLoop::fireTimers() {
    const Time begun = now();
    if (timerArmed() && nextDue() <= begun) delays_.late.add(begun - nextDue());
    Time here = begun;
    do {
        fireDue(here, timersSpan - (here - begun));
        here = now();
    } while (timerArmed() && nextDue() <= here && here - begun < timersSpan);
}

std::optional<Duration> EpollLoop::timeout() const {
    if (postedLeft_) return Duration{0};
    if (!timerArmed()) return std::nullopt;
    return std::max(nextDue() - now(), Duration{0});
}

int EpollLoop::wait(std::span<epoll_event> events) const {
    const auto span = timeout();
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(span.value_or(Duration{0}));
    timespec until{};
    until.tv_sec = whole.count();
    until.tv_nsec = (span.value_or(Duration{0}) - whole).count();
    const int most = static_cast<int>(events.size());
    const int count = epoll_pwait2(epoll_.get(), events.data(), most, span ? &until : nullptr, nullptr);
    if (count >= 0 || errno != ENOSYS) return count;
    // Before Linux 5.11: whole milliseconds, never too early.
    const auto rounded = std::chrono::ceil<std::chrono::milliseconds>(span.value_or(Duration{0}));
    constexpr std::chrono::milliseconds longest{std::numeric_limits<int>::max()};
    return epoll_wait(epoll_.get(), events.data(), most,
                      span ? static_cast<int>(std::min(rounded, longest).count()) : -1);
}

void EpollLoop::call(std::uint64_t serial, Ready kind) {
    const auto at = watched_.find(serial);
    if (at == watched_.end()) return;
    // A copy, because the handler may end its own watch.
    const Handler handler = at->second.of(kind);
    if (!handler) return;
    (*handler)();
    runPosted();
}

EpollLoop::Watch EpollLoop::watch(int fd, Ready kind, std::function<void()> handler) {
    const auto [number, fresh] = serialOf_.try_emplace(fd, nextSerial_);
    if (fresh) ++nextSerial_;
    const std::uint64_t serial = number->second;
    Watched& watched = watched_[serial];
    watched.fd = fd;
    Runtime::require(!watched.of(kind), "one watch for each descriptor and kind");
    watched.of(kind) = std::make_shared<const std::function<void()>>(std::move(handler));
    control(fresh ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, serial, watched);
    return Watch{[this, serial, kind] { end(serial, kind); }};
}

void EpollLoop::end(std::uint64_t serial, Ready kind) {
    Watched& watched = watched_.at(serial);
    watched.of(kind) = nullptr;
    if (watched.readable || watched.writable) {
        control(EPOLL_CTL_MOD, serial, watched);
        return;
    }
    control(EPOLL_CTL_DEL, serial, watched);
    serialOf_.erase(watched.fd);
    watched_.erase(serial);
}

void EpollLoop::control(int operation, std::uint64_t serial, const Watched& watched) const {
    epoll_event event{};
    if (watched.readable) event.events |= EPOLLIN;
    if (watched.writable) event.events |= EPOLLOUT;
    event.data.u64 = serial;
    const int result = epoll_ctl(epoll_.get(), operation, watched.fd, &event);
    Runtime::require(result == 0,
                     "a watched descriptor is open, can be waited for, and stays open while it is watched");
}

}  // namespace Linux
