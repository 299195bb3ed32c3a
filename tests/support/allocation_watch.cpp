// SPDX-License-Identifier: Apache-2.0
#include "tests/support/allocation_watch.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* memory, size_t size);
void __real_free(void* memory);
// Visible, since the linker takes calls of a sanitized shared library for calls of these.
[[gnu::visibility("default")]] void* __wrap_malloc(size_t size);
[[gnu::visibility("default")]] void* __wrap_calloc(size_t count, size_t size);
[[gnu::visibility("default")]] void* __wrap_realloc(void* memory, size_t size);
[[gnu::visibility("default")]] void __wrap_free(void* memory);
}

namespace {

size_t largest_request = 0;
int64_t held = 0;
int64_t most_held = 0;
AllocationFault* armed_fault = nullptr;

bool refused(size_t size) {
    return armed_fault != nullptr && armed_fault->fails(size);
}

void forget(void* memory) {
    if (memory != nullptr) held -= static_cast<int64_t>(malloc_usable_size(memory));
}

void* count(void* memory, size_t size) {
    if (memory == nullptr) return nullptr;
    largest_request = std::max(largest_request, size);
    held += static_cast<int64_t>(malloc_usable_size(memory));
    most_held = std::max(most_held, held);
    return memory;
}

void* allocate(size_t size) {
    if (void* memory = __wrap_malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

}  // namespace

void* __wrap_malloc(size_t size) {
    return refused(size) ? nullptr : count(__real_malloc(size), size);
}

void* __wrap_calloc(size_t number, size_t size) {
    return refused(number * size) ? nullptr : count(__real_calloc(number, size), number * size);
}

void* __wrap_realloc(void* memory, size_t size) {
    if (refused(size)) return nullptr;
    const auto before = static_cast<int64_t>(memory == nullptr ? 0 : malloc_usable_size(memory));
    void* grown = __real_realloc(memory, size);
    if (grown != nullptr) held -= before;
    return count(grown, size);
}

void __wrap_free(void* memory) {
    forget(memory);
    __real_free(memory);
}

void* operator new(size_t size) {
    return allocate(size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return __wrap_malloc(size);
}

void operator delete(void* memory) noexcept {
    __wrap_free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    __wrap_free(memory);
}

AllocationWatch::AllocationWatch() {
    largest_request = 0;
    held = most_held = 0;
}

size_t AllocationWatch::largest() const {
    return largest_request;
}

size_t AllocationWatch::peak() const {
    return static_cast<size_t>(most_held);
}

AllocationFault::Armed::Armed(AllocationFault& fault) {
    armed_fault = &fault;
}

AllocationFault::Armed::~Armed() {
    armed_fault = nullptr;
}

bool AllocationFault::fails(size_t size) {
    if (repaired_ || size < smallest_) return false;
    const int call = calls_++;
    return call == failing_ || (for_good_ && call > failing_);
}
