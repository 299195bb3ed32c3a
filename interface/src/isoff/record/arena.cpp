// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "interface/src/isoff/record/record.h"

// Memory of the ISO reader. All memory of an open file comes from an arena of large blocks, which
// is released as a whole.

extern "C" {
int32_t malloccount = 0;
int32_t freecount = 0;
}

namespace {

constexpr size_t kGrain = 8;
constexpr size_t kAllocationHeader = 8;
constexpr size_t kBlockHeader = 8;  // the first word chains the blocks
constexpr size_t kBlockSize = 2048000;
constexpr size_t kOwnBlockFrom = 2047993;  // a need of this size or more gets its own block

static_assert(sizeof(void*) <= kBlockHeader);

// The counters are plain integers for the host. Atomic access makes them count for all threads.
void count_one(int32_t& counter) {
    std::atomic_ref(counter).fetch_add(1, std::memory_order_relaxed);
}

void set_next_block(void* block, void* next) {
    std::memcpy(block, &next, sizeof next);
}

void* next_block(const void* block) {
    void* next;
    std::memcpy(&next, block, sizeof next);
    return next;
}

// Adds a block with `rounded` free bytes. In the records an arena block is called a chunk; it is
// unrelated to the chunks of a track.
bool getChunk(iso_file* file, size_t rounded) {
    const size_t size = rounded + kAllocationHeader >= kOwnBlockFrom
                            ? rounded + kAllocationHeader + kBlockHeader
                            : kBlockSize;
    void* block = std::malloc(size);
    if (block == nullptr) {
        file->own->lacked_memory = 1;
        return false;
    }
    set_next_block(block, nullptr);
    if (file->last_chunk == nullptr) {
        file->first_chunk = block;
    } else {
        set_next_block(file->last_chunk, block);
    }
    file->last_chunk = block;
    file->chunk_count++;
    file->chunk_next = static_cast<uint8_t*>(block) + kBlockHeader;
    file->chunk_free = size - kBlockHeader;
    return true;
}

}  // namespace

void* isoFFmalloc(iso_file* file, size_t size) {
    if (file == nullptr || size > SIZE_MAX - 64) return nullptr;
    const size_t rounded = (size + kGrain - 1) / kGrain * kGrain;
    if (file->chunk_free < rounded + kAllocationHeader && !getChunk(file, rounded)) return nullptr;
    void* memory = file->chunk_next + kAllocationHeader;
    file->chunk_next += rounded + kAllocationHeader;
    file->chunk_free -= rounded + kAllocationHeader;
    count_one(malloccount);
    return memory;
}

void isoFFfree(void*) {
    count_one(freecount);
}

void* systemmalloc(size_t size) {
    count_one(malloccount);
    return std::malloc(size);
}

void systemfree(void* memory) {
    if (memory != nullptr) count_one(freecount);
    std::free(memory);
}

namespace kestrel {

void safefree(void* first_block) {
    while (first_block != nullptr) {
        void* next = next_block(first_block);
        std::free(first_block);
        first_block = next;
    }
}

void remark(iso_file* file, const char* format, ...) {
    if (file->own->remarks > kMaxRemarks) return;
    if (file->own->remarks++ == kMaxRemarks) {
        std::fputs("further remarks left out\n", stderr);
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

}  // namespace kestrel
