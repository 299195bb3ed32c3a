// SPDX-License-Identifier: Apache-2.0
// The timescale of a track that is written. The class API counts a whole number of units in a
// millisecond; in another timescale its seeks land too early.
#ifndef KESTREL_COMPANION_HINTER_TIME_FACTOR_H
#define KESTREL_COMPANION_HINTER_TIME_FACTOR_H

#include <cstdint>
#include <optional>

#include "companion/importer/movie.h"

namespace kestrel::hinter {

// What all times of a track are multiplied by, without a rest.
struct TimeFactor {
    uint32_t up = 1, down = 1;

    uint32_t of(uint32_t time) const { return static_cast<uint32_t>(uint64_t{time} * up / down); }
    int32_t of(int32_t time) const { return static_cast<int32_t>(int64_t{time} * up / down); }
    // For a time of 0 or more.
    int64_t of(int64_t time) const { return time / down * up + time % down * up / down; }
};

// The factor to the least timescale that is a multiple of 1,000 and has all times of the track as
// whole numbers: a multiple of the track's own, or where times would exceed 32 bits, another. None
// where they always would.
std::optional<TimeFactor> whole_milliseconds(const importer::Track& track);

}  // namespace kestrel::hinter

#endif
