/// Time of the processor, so that other processes do not count.
#pragma once

#include <ctime>

namespace Bench {

inline double processorSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

template <class F>
double secondsOf(F&& work) {
    const double start = processorSeconds();
    work();
    return processorSeconds() - start;
}

}  // namespace Bench
