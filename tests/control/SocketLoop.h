/// A loop with real sockets whose clock moves only as the test says: by a millisecond in each turn, and by
/// what the work that goes on is said to cost.
#pragma once

#include "Runtime/Loop.h"

#include <algorithm>
#include <functional>
#include <map>
#include <poll.h>
#include <utility>
#include <vector>

class SocketLoop : public Runtime::FdLoop {
public:
    [[nodiscard]] Runtime::Time now() const override { return now_; }
    [[nodiscard]] Runtime::WallTime wallNow() const override {
        return Runtime::WallTime{now_.time_since_epoch()};
    }
    [[nodiscard]] Watch watch(int fd, Ready kind, std::function<void()> handler) override {
        watched_[++serial_] = [fd, kind, handler = std::move(handler)] {
            pollfd ready{fd, static_cast<short>(kind == Ready::readable ? POLLIN : POLLOUT), 0};
            if (::poll(&ready, 1, 0) == 1) handler();
        };
        return Watch{[this, serial = serial_] { watched_.erase(serial); }};
    }
    /// Something took so long.
    void took(Runtime::Duration span) { now_ += span; }
    void sleep(Runtime::Duration span) {
        now_ += span;
        turn();
    }
    /// Tells whether `condition` came true within some hundred turns.
    bool turnUntil(const std::function<bool()>& condition) {
        for (int turns = 0; turns < 500; ++turns) {
            if (condition()) return true;
            turn();
        }
        return condition();
    }
    void turn() {
        now_ += std::chrono::milliseconds{1};
        const Runtime::Time begun = now_;
        for (const auto& [serial, look] : std::map{watched_}) {
            if (watched_.contains(serial)) look();
            runPosted();
        }
        fireDue(now_);
        while (runPosted()) {
        }
        longestTurn = std::max(longestTurn, now_ - begun);
    }
    Runtime::Duration longestTurn{};

private:
    Runtime::Time now_{std::chrono::hours{1}};
    std::map<int, std::function<void()>> watched_;  ///< calls the handler of what is ready
    int serial_ = 0;
};
