// SPDX-License-Identifier: Apache-2.0
// Which tracks of the source are written, and which of them get hint tracks.
#ifndef KESTREL_COMPANION_HINTER_TRACK_CHOICE_H
#define KESTREL_COMPANION_HINTER_TRACK_CHOICE_H

#include <cstdint>
#include <string>
#include <vector>

#include "companion/hinter/outcome.h"
#include "companion/importer/movie.h"

namespace kestrel::hinter {

enum class Fate {
    kHinted,
    kCopied,
    kDropped,   // has no payload format, or no sample that salvage could keep
    kReplaced,  // is a hint track
};

struct Choice {
    importer::Track* track;
    Fate fate;
    uint32_t description = 0;  // kHinted: the one of all samples, from 0
};

// Decides for all tracks. Returns false if the source cannot be copied with these options.
bool choose_tracks(importer::Movie& movie, uint32_t flags, Outcome& outcome,
                   std::vector<Choice>& choices);

// Lists the dropped tracks: "track 3 (tx3g), track 4 (samr, no sample is whole)".
std::string dropped_text(const std::vector<Choice>& choices);

}  // namespace kestrel::hinter

#endif
