#include "tests/support/allocation_watch.h"

#include <algorithm>
#include <cstdlib>
#include <new>

size_t largest_allocation = 0;

void* operator new(size_t size) {
    largest_allocation = std::max(largest_allocation, size);
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
