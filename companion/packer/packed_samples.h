// SPDX-License-Identifier: Apache-2.0
// The samples of a stream for the writer of a file.
#ifndef KESTREL_COMPANION_PACKER_PACKED_SAMPLES_H
#define KESTREL_COMPANION_PACKER_PACKED_SAMPLES_H

#include <cstdint>
#include <vector>

#include "companion/packer/number_runs.h"
#include "companion/packer/sample_store.h"
#include "companion/packer/timeline.h"
#include "interface/src/isoff/write/hint_track.h"
#include "interface/src/isoff/write/sample_provider.h"

namespace kestrel::packer {

// The samples of the media track.
class PackedSamples final : public SampleProvider {
  public:
    PackedSamples(SampleStore& store, const Timeline& timeline)
        : store_(store), timeline_(timeline) {}

    uint32_t count() const override { return static_cast<uint32_t>(store_.count()); }
    SampleFigures figures(uint32_t sample) const override;
    bool write(uint32_t first, uint32_t count, MediaOutput& output) override;

  private:
    SampleStore& store_;
    const Timeline& timeline_;
    uint64_t written_ = 0;  // bytes
    std::vector<uint8_t> scratch_;
};

// The hint samples that describe the packets of a stream. They are made twice: for their sizes, and
// when they are written.
class PackedHints final : public SampleProvider {
  public:
    PackedHints(SampleStore& store, const PackedSamples& media) : store_(store), media_(media) {}
    // Leaves out the AU headers that all packets have, which makes payloads of RFC 6416 of those of
    // RFC 3640.
    void leave_out_au_headers() { with_au_headers_ = false; }

    // Counts the samples into the hint track. Returns false when one cannot be made.
    bool plan(iso_track* hint);
    uint64_t packets() const { return packets_; }

    uint32_t count() const override { return static_cast<uint32_t>(sizes_.size()); }
    SampleFigures figures(uint32_t sample) const override {
        return {static_cast<uint32_t>(sizes_[sample]), static_cast<uint32_t>(durations_[sample])};
    }
    bool write(uint32_t first, uint32_t count, MediaOutput& output) override;

  private:
    void take_packets();

    SampleStore& store_;
    const PackedSamples& media_;
    bool with_au_headers_ = true;
    NumberRuns sizes_, durations_;
    uint64_t packets_ = 0;
    HintSampleFacts next_{0, 0, 1};
    HintSample scratch_;
};

}  // namespace kestrel::packer

#endif
