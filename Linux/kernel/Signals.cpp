#include "Linux/kernel/Signals.h"

#include "Runtime/Assert.h"

#include <sys/signalfd.h>
#include <unistd.h>

namespace Linux {

Signals::Signals(Runtime::FdLoop& loop, std::function<void(int signal)> handler,
                 std::initializer_list<int> signals) {
    sigset_t mask{};
    sigemptyset(&mask);
    for (const int signal : signals) sigaddset(&mask, signal);
    sigprocmask(SIG_BLOCK, &mask, &maskBefore_);
    fd_ = Runtime::FileDescriptor{signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK)};
    Runtime::require(static_cast<bool>(fd_), "no descriptor left for signals");
    watch_ = loop.watch(fd_.get(), Runtime::FdLoop::Ready::readable,
                        [fd = fd_.get(), handler = std::move(handler)] {
                            signalfd_siginfo info{};
                            if (read(fd, &info, sizeof info) == sizeof info)
                                handler(static_cast<int>(info.ssi_signo));
                        });
}

Signals::~Signals() { sigprocmask(SIG_SETMASK, &maskBefore_, nullptr); }

}  // namespace Linux
