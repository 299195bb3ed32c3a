// SPDX-License-Identifier: Apache-2.0
// The chunks of a track (ISO/IEC 14496-12, 8.7.4 and 8.7.5).
#ifndef KESTREL_COMPANION_IMPORTER_CHUNKS_H
#define KESTREL_COMPANION_IMPORTER_CHUNKS_H

#include <cstdint>
#include <vector>

#include "companion/importer/import.h"
#include "companion/importer/parts.h"

namespace kestrel::importer {

struct Chunk {
    std::uint64_t offset = 0;
    std::uint32_t samples = 0;
    std::uint32_t description = 0;  // index into Track::descriptions
};

// Walks the chunks of a track from its stsc and its stco or co64.
class ChunkWalk {
  public:
    ChunkWalk(Import& import, const SampleTables& tables) : import_(import), tables_(tables) {}

    // Reads the tables. Returns false after Import::fail().
    bool open(const Track& track, const TrackImport& state);
    // Moves to the first chunk.
    void rewind();
    // Returns false after the last chunk, and when the table ends early, which fails.
    bool next(Chunk& chunk);

  private:
    // A run of chunks with the same number of samples.
    struct Run {
        std::uint32_t first_chunk = 0;  // from 1
        std::uint32_t samples = 0;
        std::uint32_t description = 0;
    };

    bool read_runs(const Track& track, const TrackImport& state);

    Import& import_;
    const SampleTables& tables_;
    std::vector<Run> runs_;
    std::optional<BoxReader> reader_;
    std::uint32_t count_ = 0;
    std::uint32_t number_ = 0;  // of the chunk, from 1
    std::size_t run_ = 0;
};

}  // namespace kestrel::importer

#endif
