// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/hint_use.h"

#include <algorithm>
#include <span>
#include <vector>

#include "companion/probe/hint_constructors.h"
#include "companion/probe/sample_places.h"
#include "native/codec/amr_format.h"
#include "tools/judge/track_samples.h"

namespace tool {

using namespace kestrel::probe;
using namespace kestrel;

namespace {

// Whether a sample has more than frames of speech without data, which a hint track may leave out.
bool has_media(iso_track* media, uint32_t sample, std::vector<uint8_t>& scratch) {
    const uint32_t size = sample_size_of(media, sample);
    if (size < 2 || (media->codec != ISO_CODEC_SAMR && media->codec != ISO_CODEC_SAWB))
        return size >= 2;
    if (size > kLongestSample) return true;
    const AmrBand& band = amr_band(media->codec == ISO_CODEC_SAWB);
    const auto bytes = read_sample(media, sample, scratch);
    return std::any_of(bytes.begin(), bytes.end(), [&](uint8_t header) {
        return storage_frame_size(band.frame_bits[storage_frame_type(header)]) > 1;
    });
}

class Walk {
  public:
    Walk(iso_track* hint, iso_track* media, FirstSamples first)
        : hint_(hint),
          media_(media),
          first_(first),
          is_one_each_(samples_of(hint) == samples_of(media)),
          is_used_(is_one_each_ ? 0 : samples_of(media)) {}

    HintUse run(Clock::time_point deadline) {
        for (uint32_t i = is_one_each_ ? first_.hint : 0; i < samples_of(hint_); ++i) {
            if (Clock::now() > deadline || sample_size_of(hint_, i) > kLongestSample) return {};
            take(i);
        }
        const uint64_t unused = is_one_each_ ? 0 : count_unused(deadline);
        // A packet that takes nothing from the medium may hold a sample itself.
        if (unused > own_packets_) use_.unused = unused;
        return use_;
    }

  private:
    void take(uint32_t sample) {
        const auto bytes = read_sample(hint_, sample, bytes_);
        bool is_misled = false, takes_any = false;
        for_each_sample_constructor(bytes, [&](const SampleConstructor& from) {
            if (from.track_reference == kHintTrackItself || from.length == 0) return;
            takes_any = true;
            is_misled = is_misled || (sample >= first_.hint && misleads(sample, from));
            if (from.sample_number - 1 < is_used_.size()) is_used_[from.sample_number - 1] = true;
        });
        if (!takes_any && bytes.size() >= kHintHeaderSize) own_packets_ += load_be16(bytes.data());
        if (is_misled && use_.misled++ == 0) use_.first_misled = uint64_t{sample} + 1;
    }

    bool misleads(uint32_t sample, const SampleConstructor& from) const {
        const uint32_t number = from.sample_number - 1;  // from 0
        if (is_one_each_ && number != sample) return true;
        return number >= samples_of(media_) ||
               uint64_t{from.sample_offset} + from.length > sample_size_of(media_, number);
    }

    uint64_t count_unused(Clock::time_point deadline) {
        uint64_t unused = 0;
        for (uint32_t i = first_.media; i < is_used_.size(); ++i) {
            if (is_used_[i]) continue;
            if (Clock::now() > deadline) return 0;
            unused += has_media(media_, i, bytes_) ? 1 : 0;
        }
        return unused;
    }

    iso_track* hint_;
    iso_track* media_;
    FirstSamples first_;
    bool is_one_each_;
    std::vector<bool> is_used_;  // of the media samples, where the counts differ
    uint64_t own_packets_ = 0;
    HintUse use_;
    std::vector<uint8_t> bytes_;
};

}  // namespace

HintUse use_of(iso_track* hint, iso_track* media, FirstSamples first, Clock::time_point deadline) {
    if (!places_of(hint).agree() || !places_of(media).agree()) return {};
    return Walk(hint, media, first).run(deadline);
}

}  // namespace tool
