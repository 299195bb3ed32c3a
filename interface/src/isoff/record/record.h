// SPDX-License-Identifier: Apache-2.0
// Shared by reading and writing: the records of a file and its tracks, and their memory.
#ifndef KESTREL_ISOFF_RECORD_H
#define KESTREL_ISOFF_RECORD_H

#include <cstring>
#include <span>

#include "interface/src/isoff/record/private.h"

namespace kestrel {

// Prints a line about the file on the standard error stream. After kMaxRemarks lines about one file
// it prints once that further lines are left out.
inline constexpr uint32_t kMaxRemarks = 100;
void remark(iso_file* file, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Frees every block of a chain of arena blocks.
void safefree(void* first_block);

// Returns `count` zeroed objects from the arena, or null.
template <typename T>
T* arena_array(iso_file* file, size_t count);

inline uint32_t sample_size_of(const iso_track* track, int32_t sample) {
    return track->sample_size != 0 ? track->sample_size : track->sample_sizes[sample];
}

// Converts track units to seconds; 0.0 for a timescale of 0.
inline double seconds(double units, uint32_t timescale) {
    return timescale == 0 ? 0.0 : units / timescale;
}

template <typename T>
T* arena_array(iso_file* file, size_t count) {
    if (count > SIZE_MAX / 2 / sizeof(T)) return nullptr;
    void* memory = isoFFmalloc(file, count * sizeof(T));
    if (memory != nullptr) std::memset(memory, 0, count * sizeof(T));
    return static_cast<T*>(memory);
}

}  // namespace kestrel

#endif
