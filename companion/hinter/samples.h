// SPDX-License-Identifier: Apache-2.0
// The samples of the tracks that are written, read from the source.
#ifndef KESTREL_COMPANION_HINTER_SAMPLES_H
#define KESTREL_COMPANION_HINTER_SAMPLES_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "companion/hinter/outcome.h"
#include "companion/hinter/packet_plan.h"
#include "companion/hinter/time_factor.h"
#include "companion/importer/movie.h"
#include "companion/importer/source.h"
#include "interface/src/isoff/write/hint_track.h"
#include "interface/src/isoff/write/sample_provider.h"

namespace kestrel::hinter {

// Reads runs of adjacent samples of the source in few calls of the host.
class SampleReader {
  public:
    SampleReader(importer::Source& source, Outcome& outcome) : source_(source), outcome_(outcome) {}

    // Returns a sample of a track, valid until the next call; nothing when the source fails.
    std::optional<std::span<const uint8_t>> sample(std::span<const importer::Sample> track,
                                                   size_t number);
    // Copies samples to the output. Returns false when the source or the output fails.
    bool copy(std::span<const importer::Sample> samples, MediaOutput& output);

  private:
    static constexpr uint64_t kWindow = 256 << 10;

    bool fill(uint64_t offset, uint64_t count);
    bool copy_bytes(uint64_t offset, uint64_t count, MediaOutput& output);

    importer::Source& source_;
    Outcome& outcome_;
    std::vector<uint8_t> window_;
    uint64_t window_begin_ = 0, window_bytes_ = 0;
};

// The samples of a media track, with times that are those of the source by `factor`.
class MediaSamples final : public SampleProvider {
  public:
    // `first_description`: that of the source, from 0, which is the first of what is written.
    MediaSamples(const importer::Track& track, TimeFactor factor, uint32_t first_description,
                 SampleReader& reader)
        : samples_(track.samples),
          factor_(factor),
          first_description_(first_description),
          reader_(reader) {}

    uint32_t count() const override { return static_cast<uint32_t>(samples_.size()); }
    SampleFigures figures(uint32_t sample) const override;
    bool write(uint32_t first, uint32_t count, MediaOutput& output) override {
        return reader_.copy(samples_.subspan(first, count), output);
    }

  private:
    std::span<const importer::Sample> samples_;
    TimeFactor factor_;
    uint32_t first_description_;
    SampleReader& reader_;
};

// The samples of a hint track, with the durations of the media samples. They are made twice: for
// their sizes, then from the plan of their packets for writing.
class HintSamples final : public SampleProvider {
  public:
    HintSamples(const MediaSamples& media, uint8_t payload_type);

    void add(const HintSample& sample);

    uint32_t count() const override { return static_cast<uint32_t>(sizes_.size()); }
    SampleFigures figures(uint32_t sample) const override;
    bool write(uint32_t first, uint32_t count, MediaOutput& output) override;

  private:
    const MediaSamples& media_;
    std::vector<uint32_t> sizes_;
    PacketPlan plan_;
    HintSampleFacts next_;
    HintSample scratch_;
};

}  // namespace kestrel::hinter

#endif
