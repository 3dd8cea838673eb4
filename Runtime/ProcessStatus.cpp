#include "Runtime/ProcessStatus.h"

#include <sys/resource.h>

namespace Runtime {

namespace {

double inSeconds(const timeval& span) {
    return static_cast<double>(span.tv_sec) + static_cast<double>(span.tv_usec) / 1e6;
}

rusage usage() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    return used;
}

}  // namespace

double ProcessStatus::cpuSeconds() {
    const rusage used = usage();
    return inSeconds(used.ru_utime) + inSeconds(used.ru_stime);
}

std::uint64_t ProcessStatus::peakMemory() {
    return static_cast<std::uint64_t>(usage().ru_maxrss) * 1024;  // the kernel tells KiB
}

}  // namespace Runtime

template class State::Record<Runtime::ProcessStatus>;
