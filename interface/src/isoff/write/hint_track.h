// SPDX-License-Identifier: Apache-2.0
// The hint samples of a hint track that is being written, one after the other.
#ifndef KESTREL_ISOFF_HINT_TRACK_H
#define KESTREL_ISOFF_HINT_TRACK_H

#include <cstdint>
#include <span>
#include <vector>

#include "interface/src/isoff/write/hint_sample_planner.h"
#include "kestrel/isoff.h"

namespace kestrel {

// A hint sample: what it describes, and its bytes.
struct HintSample {
    HintPackets packets;
    std::vector<uint8_t> bytes;
};

// Makes the hint sample of the next sample of the media track. 0, or an error of isoFFwriteHint.
// May throw std::bad_alloc.
int make_next_hint(iso_track* hint, std::span<const uint8_t> sample, int32_t cts_offset,
                   HintSample& made);

// The same for packets that are known: those in `made`.
int make_hint_of_packets(iso_track* hint, int32_t cts_offset, HintSample& made);

// Counts the sample that was made last, which stands for `samples` media samples, and goes on to
// the next. `duration` in track units.
void count_hint(iso_track* hint, const HintSample& made, uint32_t duration, uint32_t samples = 1);

}  // namespace kestrel

#endif
