// SPDX-License-Identifier: Apache-2.0
// Which samples stand together in a chunk, and where the chunks stand.
#ifndef KESTREL_ISOFF_CHUNK_LAYOUT_H
#define KESTREL_ISOFF_CHUNK_LAYOUT_H

#include <optional>
#include <queue>

#include "interface/src/isoff/write/sample_provider.h"

namespace kestrel {

// Begins a chunk of a track; false without memory.
bool begin_run(iso_track* track, uint32_t start, uint32_t description);

// Whether a chunk of `units` may take `more` units without running longer than the file's span.
bool span_allows(const iso_track* track, uint64_t units, uint64_t more);

// Lays the samples of all tracks out in chunks, one after the other in the order of their times.
// Returns the media bytes; nothing without memory. More than 32 bits may declare are laid out no
// further.
std::optional<uint64_t> lay_out_chunks(iso_file* file);

// The chunks that were laid out, in the order of the file.
class ChunkOrder {
  public:
    explicit ChunkOrder(const iso_file* file);

    struct Chunk {
        iso_track* track;
        SampleWalk first;
        uint32_t samples;
    };
    bool at_end() const { return tracks_.empty(); }
    Chunk next();

  private:
    struct Position {
        iso_track* track;
        const iso_run* run;
        SampleWalk sample;
        size_t number;  // of the track in the list

        bool operator<(const Position& other) const {
            const bool same = run->start == other.run->start;
            return same ? number > other.number : run->start > other.run->start;
        }
    };
    std::priority_queue<Position> tracks_;  // its top is the one whose chunk comes next
};

}  // namespace kestrel

#endif
