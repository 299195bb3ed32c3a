// SPDX-License-Identifier: Apache-2.0
// Which samples form a chunk, and where the chunks are.
#ifndef KESTREL_ISOFF_CHUNK_LAYOUT_H
#define KESTREL_ISOFF_CHUNK_LAYOUT_H

#include <optional>
#include <queue>

#include "interface/src/isoff/write/sample_provider.h"

namespace kestrel {

// Begins a chunk of a track. Returns false without memory.
bool begin_run(iso_track* track, uint32_t start, uint32_t description);

// Whether a chunk of `units` plus `more` units is within the interleave span of the file.
bool span_allows(const iso_track* track, uint64_t units, uint64_t more);

// Places the samples of all tracks in chunks, in the order of their times. Returns the media bytes,
// or nothing without memory. Stops after 4 GiB.
std::optional<uint64_t> lay_out_chunks(iso_file* file);

// The chunks in the order of the file.
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
    std::priority_queue<Position> tracks_;  // its top has the next chunk
};

}  // namespace kestrel

#endif
