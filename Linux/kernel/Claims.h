/// What only one daemon of a network namespace may have: a bridge, a port.
///
/// A claim is a listening socket with an abstract name, which the kernel keeps by network namespace and drops
/// with the process, however that ends.  No file has to be cleaned up, and none can be removed.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <functional>
#include <map>
#include <string>

namespace Linux {

class Claims {
public:
    /// `complaint` takes one line about something that an operator should know.  The loop must outlive the
    /// claims.
    Claims(Runtime::FdLoop& loop, std::function<void(const std::string& line)> complaint)
        : loop_{loop}, complaint_{std::move(complaint)} {}

    /// Whether to wait some milliseconds for another daemon that is about to listen.
    enum class Patience { none, some };

    /// Claims something like "bridge br0"; empty when it is ours now, or was, else one line that names the
    /// process that has it.  Anybody may take any name, so that of another user who is not root, or of a
    /// process that does not listen, only gives a complaint.
    std::string take(const std::string& what, Patience patience);
    void giveBack(const std::string& what) { held_.erase(what); }
    /// Whether somebody has it, whoever that is: this process, one of another user or of another PID
    /// namespace, or one that is too busy to answer.  What cannot be told counts as taken.
    [[nodiscard]] static bool taken(const std::string& what);
    /// The process that has it, this one included; 0 where nobody has it or the kernel does not tell.
    [[nodiscard]] static int holder(const std::string& what);
    [[nodiscard]] bool has(const std::string& what) const { return held_.contains(what); }

private:
    struct Claim {
        Runtime::FileDescriptor socket;
        Runtime::FdLoop::Watch asked;
    };

    Runtime::FdLoop& loop_;
    const std::function<void(const std::string&)> complaint_;
    std::map<std::string, Claim> held_;
};

}  // namespace Linux
