/// The last lines of the system log, for people who ask the running daemon.
#pragma once

#include "Runtime/LogConfig.h"
#include "State/Record.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace Runtime {

class LogLine : public State::Record<LogLine> {
public:
    static constexpr std::string_view type = "Runtime::LogLine";
    explicit LogLine(std::uint64_t) {}
    LogLine(double time, LogLevel level, std::string text)
        : time_{time}, level_{level}, text_{std::move(text)} {}

    /// Seconds on the daemon's clock.
    [[nodiscard]] double time() const { return time_; }
    [[nodiscard]] LogLevel level() const { return level_; }
    [[nodiscard]] const std::string& text() const { return text_; }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::scalar("time", &LogLine::time_));
        each(State::scalar("level", &LogLine::level_));
        each(State::scalar("text", &LogLine::text_));
    }

private:
    double time_ = 0.0;
    LogLevel level_ = LogLevel::information;
    std::string text_;
};

/// "log"
class RecentLog : public State::Record<RecentLog> {
public:
    static constexpr std::string_view type = "Runtime::RecentLog";
    static constexpr std::size_t capacity = 1000;

    /// Lines by number, counted from 1.
    [[nodiscard]] const State::Collection<std::uint64_t, LogLine>& line() const { return line_; }
    /// Beyond the capacity the oldest line goes.
    void add(double time, LogLevel level, const std::string& text) {
        if (line_.size() == capacity) delChild(line_, *line_.firstKey(), "line");
        putChild(line_, next_++, std::make_shared<LogLine>(time, level, text), "line");
    }

    template <class F>
    static constexpr void fields(F&& each) {
        each(State::collection("line", &RecentLog::line_));
    }

private:
    std::uint64_t next_ = 1;
    State::Collection<std::uint64_t, LogLine> line_;
};

}  // namespace Runtime
