/// Tells the service manager that started this process how it does, in the datagrams of sd_notify(3).
///
/// Written by hand instead of with its library: it is one datagram of text, its form is promised to stay, and
/// the library would come with a dozen others on systems that have another manager.  Without a manager that
/// listens, nothing is sent.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <chrono>
#include <deque>
#include <string>
#include <string_view>

namespace Linux {

class ServiceManager {
public:
    /// What it has told this process.
    struct Wishes {
        std::string socket;          ///< a path, or behind "@" a name that is no file; empty: nobody listens
        Runtime::Duration alive{0};  ///< a sign of life is wanted at least so often; 0: never

        /// From the environment: NOTIFY_SOCKET, and WATCHDOG_USEC where WATCHDOG_PID is this process.
        static Wishes fromEnvironment();
    };

    /// The loop must outlive it; signs of life come from it, so that a loop that stands still is noticed.
    explicit ServiceManager(Runtime::FdLoop& loop, Wishes wishes = Wishes::fromEnvironment());

    void ready();
    void reloading();
    void stopping();
    /// One line for people.
    void statusIs(const std::string& line);

private:
    static constexpr Runtime::Duration again = std::chrono::milliseconds{100};
    /// Of a manager that listens no more.
    static constexpr std::size_t mostUnsent = 16;

    void tell(std::string message);
    void send();
    void sendSign();
    [[nodiscard]] bool sent(std::string_view message) const;

    Runtime::FdLoop& loop_;
    const Wishes wishes_;
    Runtime::FileDescriptor socket_;
    std::deque<std::string> unsent_;
    std::string status_;
    Runtime::Timer again_;
    Runtime::Timer sign_;
};

}  // namespace Linux
