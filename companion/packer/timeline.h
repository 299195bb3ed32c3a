// SPDX-License-Identifier: Apache-2.0
// When the samples of a stream are decoded and shown.
#ifndef KESTREL_COMPANION_PACKER_TIMELINE_H
#define KESTREL_COMPANION_PACKER_TIMELINE_H

#include <cstdint>
#include <span>
#include <vector>

#include "companion/packer/sample_store.h"
#include "companion/stream/native_walk.h"

namespace kestrel::packer {

struct Timeline {
    uint32_t timescale = 0;           // units per second
    uint64_t start = 0;               // of the first sample; 0 where the stream does not declare it
    std::vector<uint32_t> durations;  // of each sample
    std::vector<int32_t> composition;  // offset of each sample; empty where all are 0
    // What composition adds to all times, so that no sample is shown before it is decoded.
    uint32_t delay = 0;
};

// `frames`: how many frames the stream has; one that was cut has fewer than it declares.
// `shown_after`: how many samples at least are decoded before the first one is shown.
Timeline make_timeline(const stream::StreamHeader& header, std::span<const Sample> samples,
                       uint32_t frames, uint32_t shown_after);

}  // namespace kestrel::packer

#endif
