// SPDX-License-Identifier: Apache-2.0
// Reading the samples of a track one by one. It moves the track's cursor.
#ifndef KESTREL_TOOLS_JUDGE_TRACK_SAMPLES_H
#define KESTREL_TOOLS_JUDGE_TRACK_SAMPLES_H

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "common/frame_limit.h"
#include "companion/probe/media_tracks.h"

namespace tool {

constexpr uint32_t kLongestSample = kestrel::kMaxFrameBytes;  // of one that plays

inline uint32_t samples_of(const iso_track* track) {
    return static_cast<uint32_t>(std::max(track->sample_count, 0));
}

// Reads the first bytes of a sample, from 0; none of one that cannot be read. They are in `bytes`.
inline std::span<const uint8_t> read_sample(iso_track* track, uint32_t sample,
                                            std::vector<uint8_t>& bytes,
                                            uint32_t most = kLongestSample) {
    bytes.resize(std::min(kestrel::probe::sample_size_of(track, sample), most));
    const int got = isoFFreadAt(track, static_cast<int>(sample), 0, bytes.data(),
                                static_cast<unsigned>(bytes.size()), nullptr, nullptr);
    return std::span(bytes).first(static_cast<size_t>(std::max(got, 0)));
}

}  // namespace tool

#endif
