/// Signals as events of the loop.
#pragma once

#include "Runtime/FileDescriptor.h"
#include "Runtime/Loop.h"

#include <csignal>
#include <functional>
#include <initializer_list>

namespace Linux {

/// While it lives, the given signals no longer interrupt the process but call the handler from the loop.  To
/// be made before any other thread.  The loop must outlive it.
class Signals {
public:
    Signals(Runtime::FdLoop& loop, std::function<void(int signal)> handler,
            std::initializer_list<int> signals = {SIGTERM, SIGINT});
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;
    ~Signals();

private:
    sigset_t maskBefore_{};
    Runtime::FileDescriptor fd_;
    Runtime::FdLoop::Watch watch_;
};

}  // namespace Linux
