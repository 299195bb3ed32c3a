// Finding a sample at once: where the cursor stands at every so many samples, and which time entry
// a sample belongs to.
#ifndef KESTREL_INTERFACE_ISOFF_INDEX_H
#define KESTREL_INTERFACE_ISOFF_INDEX_H

#include "interface/src/isoff.h"

namespace kestrel {

// The cursor walk takes one step for a sample, or for all samples of a chunk that lie ahead where
// their size is constant. Every so many steps leave a checkpoint.
inline constexpr uint32_t kStepsPerCheckpoint = 32;

// Where the walk finds a sample.
struct Checkpoint {
    int32_t sample;
    int32_t chunk;
    uint32_t offset;
};

// A read-ahead of one track: bytes of the file from `start` on.
struct ReadWindow {
    static constexpr uint32_t kRoom = 4096;

    uint32_t start;
    uint32_t length;
    uint8_t bytes[kRoom];
};

}  // namespace kestrel

// What an iso_track hangs its index from; made by check_tables. Like the tables it lives in the
// file's arena.
struct iso_index {
    kestrel::Checkpoint* checkpoints;  // at least one, the first at sample 0
    size_t checkpoint_count;
    // How many samples lie in front of each entry; as long as the tables.
    uint32_t* stts_samples;
    uint32_t* ctts_samples;
    kestrel::ReadWindow* window;  // null until a read could use it
};

namespace kestrel {

// Makes the index of a track whose tables agree; false when there is no memory.
bool make_index(iso_track* track);

// Passes as many samples as the cursor can pass in one step, at least one and at most `wanted`. The
// times are left to the caller.
void advance_place(iso_track* track, uint32_t wanted);

// Puts the cursor on the first sample.
void rewind_cursor(iso_track* track);

}  // namespace kestrel

#endif
