// SPDX-License-Identifier: Apache-2.0
// Where the tables of a track place its samples, as either API reads them, and whether they agree.
#ifndef KESTREL_COMPANION_PROBE_SAMPLE_PLACES_H
#define KESTREL_COMPANION_PROBE_SAMPLE_PLACES_H

#include <cstdint>
#include <vector>

#include "companion/probe/file_scan.h"
#include "kestrel/isoff.h"

namespace Qvox3gp {
class StblBox;
}

namespace kestrel::probe {

// Bytes of the file.
struct ByteRange {
    uint64_t begin = 0, end = 0;

    bool is_empty() const { return begin >= end; }
    bool meets(const ByteRange& other) const { return begin < other.end && other.begin < end; }
};

// What tables declare. A sample of one byte is no media: it is an empty frame of speech.
struct SamplePlaces {
    uint64_t samples = 0;           // that the size table declares
    uint64_t placed = 0;            // of them, those that a chunk holds
    uint64_t timed = 0;             // those that the time table declares
    uint32_t largest = 0;           // bytes of a sample
    std::vector<ByteRange> chunks;  // in the order of the samples, those that are not empty
    ByteRange last;                 // of the samples that are not empty, the last
    uint64_t last_filled = 0;       // its number, from 1
    uint64_t last_media = 0;        // number of the last sample of media, from 1

    bool are_placed() const { return placed == samples && !last.is_empty(); }
    bool agree() const { return are_placed() && timed >= samples; }
};

// As the function API reads them. It places no sample of a track whose tables it refuses.
SamplePlaces places_of(const iso_track* track);

// As the class API reads them. All of its tables must be there.
SamplePlaces places_of(const Qvox3gp::StblBox& tables);

// Whether a chunk lies in a box that has no media: `ftyp`, `moov`, or the first header of the file.
bool are_misplaced(const SamplePlaces& places, const FileScan& scan);

// Whether a chunk ends after the end of the file.
bool are_cut(const SamplePlaces& places, const FileScan& scan);

// The highest number of a media sample that a hint sample takes bytes from; 0 when it takes them
// from none, or cannot be read.
uint32_t highest_media_sample(KST_IOSTREAM_CALLBACK_INTERFACE& stream, const ByteRange& hint);

}  // namespace kestrel::probe

#endif
