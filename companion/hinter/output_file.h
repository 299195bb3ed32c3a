// SPDX-License-Identifier: Apache-2.0
// The records of the output, made from the source.
#ifndef KESTREL_COMPANION_HINTER_OUTPUT_FILE_H
#define KESTREL_COMPANION_HINTER_OUTPUT_FILE_H

#include <cstdint>
#include <set>
#include <vector>

#include "companion/hinter/time_factor.h"
#include "companion/hinter/track_choice.h"
#include "companion/importer/movie.h"
#include "interface/src/isoff/write/copied_boxes.h"
#include "kestrel/isoff.h"

namespace kestrel::hinter {

// A track of the source that is written.
struct Written {
    importer::Track* from;
    bool is_hinted;
    iso_track* to = nullptr;
    TimeFactor factor;
    bool has_coarse_seeks = false;  // of the class API, as no factor makes its times fit
    CopiedBoxes boxes;
};

// Changes the headers of copied boxes to 32-bit sizes, which all players read. Call it first.
void shorten_headers(importer::Movie& movie);

// All may throw std::bad_alloc. The parts of the movie that they refer to must outlive the file.

// The movie header and the brands.
void describe_movie(iso_file* file, const importer::Movie& movie,
                    const std::vector<Choice>& choices);

// The IDs of the tracks that are written.
using TrackIds = std::set<uint32_t>;
TrackIds written_track_ids(const std::vector<Choice>& choices);

// Makes the track without its samples. Of its references, copies those to written tracks.
void make_track(iso_file* file, const Choice& choice, const TrackIds& written_ids,
                Written& written);

}  // namespace kestrel::hinter

#endif
