/// The daemon's log: what is said of the switch, on its way out and into the record "log".
#pragma once

#include "Control/LogLimiter.h"
#include "Control/LogWriter.h"
#include "Runtime/LogConfig.h"
#include "Runtime/RecentLog.h"
#include "Runtime/RepeatedLines.h"
#include "Runtime/SystemLog.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

class DaemonLog {
public:
    using Level = Runtime::LogLevel;
    using Topic = Runtime::LogTopic;

    /// The loop must outlive it.
    DaemonLog(Runtime::Loop& loop, std::unique_ptr<Control::LogOutlet> outlet,
              std::shared_ptr<const Runtime::LogConfig> config, std::shared_ptr<Runtime::RecentLog> recent);

    /// Lines that begin with the port's name, or say that they are about it, count as the port's from now on.
    void portIs(const std::string& port, bool known);
    /// Takes the events of the protocol.
    void listen(Runtime::SystemLog& events);
    void say(Topic topic, Level level, const std::string& line);
    /// Whatever levels are configured: what operators do, who could else hide it with one of them.
    void sayAlways(Level level, const std::string& line);
    /// Past all limits.
    void trace(std::string_view line) { writer_.line(static_cast<int>(Level::debug), std::string{line}); }
    void reopen() { writer_.reopen(); }
    /// Writes all that waits, as far as somebody reads it soon.
    void finish();

private:
    [[nodiscard]] std::string_view portNamed(std::string_view line) const;
    void keep(int severity, const std::string& line);

    Runtime::Loop& loop_;
    const std::shared_ptr<const Runtime::LogConfig> config_;
    const std::shared_ptr<Runtime::RecentLog> recent_;
    std::set<std::string, std::less<>> ports_;
    Control::LogWriter writer_;
    Control::LogLimiter limiter_;
    Runtime::RepeatedLines folder_;
};
