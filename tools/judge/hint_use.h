// SPDX-License-Identifier: Apache-2.0
// Which bytes of its medium a hint track takes.
#ifndef KESTREL_TOOLS_JUDGE_HINT_USE_H
#define KESTREL_TOOLS_JUDGE_HINT_USE_H

#include <algorithm>
#include <cstdint>

#include "companion/probe/media_tracks.h"
#include "tools/judge/child_process.h"

namespace tool {

struct HintUse {
    // The hint samples that take bytes that a sample does not have, or, where hint track and medium
    // have as many samples, bytes of another sample than the one of their number, or bytes of it
    // again.
    uint64_t misled = 0;
    uint64_t first_misled = 0;  // from 1; 0 for none
    // Of the others, where hint track and medium have as many samples, those from whose packets a
    // receiver does not get the media of their sample; else those whose packets cut speech frames.
    uint64_t partial = 0;
    uint64_t first_partial = 0;  // from 1; 0 for none
    // The hint samples with a packet whose time of sending is far from that of the sample.
    uint64_t mistimed = 0;
    uint64_t first_mistimed = 0;  // from 1; 0 for none
    // The samples of media from which no hint sample takes bytes, where the medium has more samples
    // than the hint track, or fewer.
    uint64_t unused = 0;

    // The hint samples of the first two kinds.
    uint64_t wrong() const { return misled + partial; }
    uint64_t first_wrong() const {
        if (misled == 0 || partial == 0) return std::max(first_misled, first_partial);
        return std::min(first_misled, first_partial);
    }
    bool is_whole() const { return wrong() == 0 && mistimed == 0 && unused == 0; }
};

// Seconds between a sample and the sending of its packets at the most.
constexpr int kFurthestPacket = 10;

// The first samples that count, from 0.
struct FirstSamples {
    uint32_t hint = 0, media = 0;
};

// Walks the constructors of all hint samples, as the API takes them: the class API takes the bytes
// of all sample constructors from the medium and skips sample description constructors. Finds
// nothing where the tables of a track do not agree, as the APIs differ on them, and no unused
// samples where packets may hold them themselves. After the deadline it finds no more, and no
// unused samples. Moves the cursors of both tracks.
HintUse use_of(iso_track* hint, iso_track* media, kestrel::probe::Api api, FirstSamples first,
               Clock::time_point deadline);

}  // namespace tool

#endif
