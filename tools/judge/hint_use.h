// SPDX-License-Identifier: Apache-2.0
// Which bytes of its medium a hint track takes.
#ifndef KESTREL_TOOLS_JUDGE_HINT_USE_H
#define KESTREL_TOOLS_JUDGE_HINT_USE_H

#include <cstdint>

#include "kestrel/isoff.h"
#include "tools/judge/child_process.h"

namespace tool {

struct HintUse {
    // The hint samples that take bytes that a sample does not have, or, where hint track and medium
    // have as many samples, bytes of another sample than the one of their number, or bytes of it
    // again.
    uint64_t misled = 0;
    uint64_t first_misled = 0;  // from 1; 0 for none
    // Of the others, where hint track and medium have as many samples, those with packets that
    // leave out bytes of media of their sample.
    uint64_t partial = 0;
    uint64_t first_partial = 0;  // from 1; 0 for none
    // The samples of media from which no hint sample takes bytes, where the medium has more samples
    // than the hint track, or fewer.
    uint64_t unused = 0;
};

// The first samples that count, from 0.
struct FirstSamples {
    uint32_t hint = 0, media = 0;
};

// Walks the sample constructors of all hint samples. Finds nothing where the tables of a track do
// not agree, as the APIs differ on them, or the deadline passes before the end, and no unused
// samples where packets may hold them themselves. Moves the cursors of both tracks.
HintUse use_of(iso_track* hint, iso_track* media, FirstSamples first, Clock::time_point deadline);

}  // namespace tool

#endif
