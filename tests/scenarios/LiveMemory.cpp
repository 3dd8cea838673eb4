#include "tests/scenarios/LiveMemory.h"

#ifdef __SANITIZE_ADDRESS__
// Of the sanitizer's own library, whose header not every compiler brings.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

std::size_t liveOctets() { return __sanitizer_get_current_allocated_bytes(); }
#else
#include <malloc.h>

std::size_t liveOctets() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif
