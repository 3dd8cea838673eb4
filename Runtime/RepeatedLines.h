/// Keeps the log readable while every LeaveAll round repeats what is still wrong: the first of several
/// identical lines passes at once, those that follow within a minute become one line with their count.
#pragma once

#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Runtime {

class RepeatedLines {
public:
    /// `severity` as in syslog; `port` is the one that the line is about, or empty; the line stands for
    /// `count`.
    using Sink = std::function<void(int severity, std::string_view port, const std::string& line,
                                    std::uint64_t count)>;

    static constexpr Duration window = std::chrono::minutes{1};
    /// Different lines that are remembered at a time.
    static constexpr std::size_t capacity = 4096;

    /// The loop must outlive it.
    RepeatedLines(Loop& loop, Sink sink);
    RepeatedLines(const RepeatedLines&) = delete;
    RepeatedLines& operator=(const RepeatedLines&) = delete;

    void line(int severity, std::string_view port, const std::string& text);
    /// Tells all counts that are still held back.
    void flush();

private:
    struct Held {
        int severity;
        std::string port;
        std::string text;
        std::uint64_t again;  ///< how often it came since it was last told
        Time until;
    };

    void expire();
    void closeOldest(bool mayReopen);

    Loop& loop_;
    Sink sink_;
    std::list<Held> held_;  ///< oldest window first; all windows are equally long
    std::unordered_map<std::string_view, std::list<Held>::iterator> byText_;
    Timer timer_;
};

}  // namespace Runtime
