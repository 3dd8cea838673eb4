/// The way out for log lines, which never waits for whoever reads them: lines wait in a bounded queue, and
/// what finds no room there is dropped and counted.
#pragma once

#include "Control/Socket.h"
#include "Runtime/Loop.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Control {

/// Text of others, as one line: what would end it, or mean something to a terminal, is a blank.
[[nodiscard]] std::string oneLine(std::string text);

/// Where lines go.  No call waits.
class LogOutlet {
public:
    virtual ~LogOutlet() = default;
    /// What is to stand before a line of this moment; `severity` as in syslog.
    [[nodiscard]] virtual std::string head(int severity) const = 0;
    /// How many octets of the line, from `offset` on, were taken; all of them count the line's end. Negative:
    /// the error number, EAGAIN when the reader has to catch up first.
    virtual ssize_t write(const std::string& line, std::size_t offset) = 0;
    /// Begins anew, as far as that can be done.
    virtual void reopen() = 0;
};

/// Standard error, whatever that is: with the severity before each line where it is the system's journal,
/// else with the time of day, in UTC.  A pipe or terminal is opened a second time, because our not waiting
/// for it would else be everybody's who has it.
std::unique_ptr<LogOutlet> standardError(const Runtime::Loop& loop);
/// The system's log: datagrams to a socket, connected again whenever it was away.
std::unique_ptr<LogOutlet> systemLogSocket(const Runtime::Loop& loop, std::string program,
                                           std::string path = "/dev/log");

class LogWriter {
public:
    /// Octets of lines that wait.
    static constexpr std::size_t capacity = std::size_t{256} << 10;

    /// `trouble` takes one line when lines begin to be lost, for those who can still be told.  The loop must
    /// outlive the writer.
    LogWriter(Runtime::Loop& loop, std::unique_ptr<LogOutlet> outlet,
              std::function<void(const std::string& line)> trouble);

    /// Written behind what is due already, the frames that it is about among them, or when that is possible;
    /// `severity` as in syslog.
    void line(int severity, const std::string& text);
    void reopen();
    /// Writes what it can, waiting at most for so long.
    void finish(Runtime::Duration span);

private:
    void enqueue(int severity, const std::string& text);
    /// True when nothing is left.
    bool flush();
    void lost(const std::string& reason);

    Runtime::Loop& loop_;
    const std::unique_ptr<LogOutlet> outlet_;
    const std::function<void(const std::string&)> trouble_;
    std::deque<std::string> queue_;
    std::size_t octets_ = 0;  ///< in the queue
    std::size_t offset_ = 0;  ///< what of its first line has been written
    std::uint64_t dropped_ = 0;
    bool letOthersPass_ = false;  ///< at the next firing of the timer
    std::string reason_;          ///< why lines are not written; empty while they are
    Runtime::Timer timer_;
};

/// The text, as one line, on standard error from a process that is about to end; waits for a reader, but not
/// long.
void lastWords(const std::string& line);

}  // namespace Control
