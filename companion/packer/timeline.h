// SPDX-License-Identifier: Apache-2.0
// Decoding and display times of the samples of a stream.
#ifndef KESTREL_COMPANION_PACKER_TIMELINE_H
#define KESTREL_COMPANION_PACKER_TIMELINE_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/packer/sample_store.h"
#include "native/stream/native_walk.h"

namespace kestrel::packer {

// The decoding times of a stream's samples, whose clock may be too fast.
class Times {
  public:
    Times() = default;
    // The numbers must outlive it.
    explicit Times(const NumberRuns& counted) : counted_(&counted) {}
    void divide_by(double factor) { factor_ = factor; }

    size_t size() const { return counted_->size(); }
    uint64_t operator[](size_t sample) const { return scaled((*counted_)[sample]); }
    uint64_t front() const { return scaled(counted_->front()); }
    uint64_t back() const { return scaled(counted_->back()); }

  private:
    uint64_t scaled(uint64_t time) const;

    const NumberRuns* counted_ = nullptr;
    double factor_ = 1.0;
};

struct Timeline {
    uint32_t timescale = 0;  // units per second
    uint64_t start = 0;      // of the first sample; 0 where the stream does not declare it
    Times times;
    uint32_t last_duration = 0;        // of the last sample
    std::vector<int32_t> composition;  // offset of each sample; empty where all are 0
    // What composition adds to all times, so that no sample is shown before it is decoded.
    uint32_t delay = 0;

    uint32_t duration_of(size_t sample) const;
    int32_t composition_of(size_t sample) const {
        return composition.empty() ? 0 : composition[sample];
    }
};

// `samples` must outlive the timeline, and has at least one. `frames`: how many frames the stream
// has; one that was cut has fewer than it declares. `shown_after`: how many samples at least are
// decoded before the first one is shown.
Timeline make_timeline(const stream::StreamHeader& header, const SampleStore& samples,
                       uint32_t frames, uint32_t shown_after);

}  // namespace kestrel::packer

#endif
