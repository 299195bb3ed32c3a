// SPDX-License-Identifier: Apache-2.0
// Making the hint samples of a hint track in order.
#ifndef KESTREL_ISOFF_HINT_TRACK_H
#define KESTREL_ISOFF_HINT_TRACK_H

#include <cstdint>
#include <span>
#include <vector>

#include "interface/src/isoff/write/hint_sample_planner.h"
#include "kestrel/isoff.h"

namespace kestrel {

// The packets of a hint sample, and its bytes.
struct HintSample {
    HintPackets packets;
    std::vector<uint8_t> bytes;
};

// Describes MPEG-4 packets of one's own as payloads of RFC 3640 whose AU headers have a DTS-delta
// of that many bits. Returns false without memory.
bool describe_au_headers(iso_track* hint, unsigned dts_delta_bits);

// Makes the hint sample of the next media sample. Returns 0, or an error of isoFFwriteHint. May
// throw std::bad_alloc.
int make_next_hint(iso_track* hint, std::span<const uint8_t> sample, int32_t cts_offset,
                   HintSample& made);

// Makes the hint sample of the packets in `made`. Returns as above.
int make_hint_of_packets(iso_track* hint, int32_t cts_offset, HintSample& made);

// Counts the hint sample that was made last, which covers `samples` media samples, and moves to the
// next one. `duration` is in track units.
void count_hint(iso_track* hint, const HintSample& made, uint32_t duration, uint32_t samples = 1);

}  // namespace kestrel

#endif
