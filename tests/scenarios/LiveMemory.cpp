#include "tests/scenarios/LiveMemory.h"

#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {
std::size_t live = 0;
}  // namespace

std::size_t liveOctets() { return live; }

void* operator new(std::size_t size) {
    void* memory = std::malloc(size);
    if (memory == nullptr) throw std::bad_alloc{};
    live += malloc_usable_size(memory);
    return memory;
}

void operator delete(void* memory) noexcept {
    live -= malloc_usable_size(memory);
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
