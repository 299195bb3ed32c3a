// SPDX-License-Identifier: Apache-2.0
// The parts of the importer in the order of their use. Each returns false after Import::fail().
#ifndef KESTREL_COMPANION_IMPORTER_PARTS_H
#define KESTREL_COMPANION_IMPORTER_PARTS_H

#include <optional>
#include <span>
#include <vector>

#include "companion/importer/import.h"

namespace kestrel::importer {

// movie_boxes.cpp: the brands; the movie box with its tracks (track_boxes.cpp).
bool read_brands(Import& import, const Box& ftyp);
bool read_movie_box(Import& import, const Box& moov);

// track_boxes.cpp: adds the track of a trak.
bool read_track(Import& import, const Box& trak);

// sample_entries.cpp: the sample entries of an stsd. Entries with the same codec and configuration
// are joined.
bool read_sample_entries(Import& import, const Box& stsd, Track& track, TrackImport& state);

// sample_tables.cpp: the samples that the boxes of an stbl describe.
struct SampleTables {
    std::optional<Box> sizes;    // stsz or stz2
    std::optional<Box> times;    // stts
    std::optional<Box> offsets;  // ctts
    std::optional<Box> sync;     // stss
    std::optional<Box> runs;     // stsc
    std::optional<Box> chunks;   // stco or co64
    std::vector<Box> groups;     // sbgp and sgpd
};
bool read_samples(Import& import, const SampleTables& tables, Track& track, TrackImport& state);

// sound_units.cpp: whether the tables count units of sound, several of which make a sample; the
// samples of such tables.
struct SoundUnits {
    std::uint32_t count = 0;  // 0: the tables count samples
    std::uint32_t duration = 0;
};
bool find_sound_units(Import& import, const SampleTables& tables, const Track& track,
                      const TrackImport& state, SoundUnits& units);
bool read_sound_units(Import& import, const SampleTables& tables, const SoundUnits& units,
                      Track& track, TrackImport& state);

// Converts the number of a description in a table, from 1, to an index into Track::descriptions.
bool find_description(Import& import, const Box& box, std::uint32_t number, const Track& track,
                      const TrackImport& state, std::uint32_t& index);

// fragments.cpp: the samples of all movie fragments, in the order of the file.
bool read_fragments(Import& import, std::span<const Box> moofs);

// fragment_index.cpp: whether fragments are missing, by the segment indexes (sidx), the declared
// duration (mehd) and the random access indexes (mfra). Call them after read_fragments().
bool check_segment_index(Import& import, const Box& sidx);
bool check_declared_duration(Import& import);
bool check_random_access(Import& import, std::span<const Box> indexes,
                         std::span<const Box> fragments);

// hidden_boxes.cpp: whether boxes are hidden because the size or the type of another one is
// damaged.
inline constexpr std::uint32_t kFileAsContainer = 0;
// Whether a box of the file may be there.
bool check_file_place(Import& import, const Box& box);
// Whether the boxes of the file hide no fragments. Of media only bytes after the last sample are
// read. Call it after read_fragments().
bool check_covered_fragments(Import& import);

// finish.cpp: checks that all samples are in the file, and adjusts times, durations and edits to
// the samples that were read.
bool finish_movie(Import& import);

}  // namespace kestrel::importer

#endif
