/// How much of the log each port may fill, and all together.  What a peer sends makes lines, and a peer can
/// make each of them another one.
///
/// Each port has lines saved up for an eventful moment, and gets new ones at a steady rate; so do the lines
/// that name no port.  What is left out is counted, and the count told once a minute.  Whoever makes lines
/// can ask first whether there is any use in it.
#pragma once

#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace Control {

class LogLimiter {
public:
    /// `severity` as in syslog.
    using Sink = std::function<void(int severity, const std::string& line)>;

    /// Lines of one port: saved up at most, and new ones in a minute.
    static constexpr double savedLines = 200;
    static constexpr double linesPerMinute = 100;
    /// Octets of all lines, in the same way.
    static constexpr double savedOctets = 384 * 1024;
    static constexpr double octetsPerMinute = 384 * 1024;

    /// The loop must outlive the limiter.
    LogLimiter(Runtime::Loop& loop, Sink sink)
        : loop_{loop}, sink_{std::move(sink)}, timer_{loop, [this] { tick(); }} {}
    LogLimiter(const LogLimiter&) = delete;
    LogLimiter& operator=(const LogLimiter&) = delete;

    /// Whether a line about the port (empty: about none) can be written now; if not, it counts as left out.
    /// Costs next to nothing.
    [[nodiscard]] bool asks(std::string_view port);
    /// Passes the line on, or counts it as those that it stands for.
    void line(int severity, std::string_view port, const std::string& text, std::uint64_t count = 1);
    /// Tells all counts.
    void flush();

private:
    struct Share {
        double lines = savedLines;
        std::uint64_t leftOut = 0;
    };
    Share& share(std::string_view port);
    void leaveOut(Share& share, std::uint64_t count);
    void tick();

    Runtime::Loop& loop_;
    const Sink sink_;
    std::map<std::string, Share, std::less<>> shares_;
    std::pair<std::string_view, Share*> lastAsked_{};  ///< the name is the key in `shares_`
    double octets_ = savedOctets;
    Runtime::Time toTell_{};
    Runtime::Timer timer_;  ///< runs while a share is not full or a count is not told
};

/// Which port a line of the log is about, by its words: "... on swp3 ...", "swp3 ..." or "swp3: ...", where
/// that is one of which `known` is true; else empty.
std::string_view portNamed(std::string_view line, const std::function<bool(std::string_view)>& known);

}  // namespace Control
