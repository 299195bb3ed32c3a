// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/hint_use.h"

#include <algorithm>
#include <span>
#include <vector>

#include "common/frame_limit.h"
#include "companion/probe/hint_constructors.h"
#include "companion/probe/sample_places.h"
#include "native/codec/amr_format.h"
#include "tools/judge/taken_bytes.h"
#include "tools/judge/track_samples.h"

namespace tool {

using namespace kestrel::probe;
using namespace kestrel;

namespace {

using Bytes = std::span<const uint8_t>;

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
        uint64_t own_packets = 0;
        taken_.clear();
        const bool is_whole =
            for_each_packet_entry(bytes, [&](const PacketEntry& entry, Bytes constructors) {
                own_packets += begin_packet(entry, constructors) ? 1 : 0;
                for_each_sample_constructor_of(constructors, [&](const SampleConstructor& from) {
                    if (!takes_media(from)) return;
                    takes_any = true;
                    is_misled = is_misled || (sample >= first_.hint && misleads(sample, from));
                    if (is_one_each_) taken_.add(from);
                    if (from.sample_number - 1 < is_used_.size())
                        is_used_[from.sample_number - 1] = true;
                });
            });
        if (!takes_any) own_packets_ += own_packets;
        if (is_one_each_ && !is_misled) is_misled = taken_.overlap();
        if (is_misled && use_.misled++ == 0) use_.first_misled = uint64_t{sample} + 1;
        // A hint sample without packets, or with one that cannot be read, is reported elsewhere.
        const bool is_judged = is_one_each_ && !is_misled && is_whole && has_packets(bytes);
        if (is_judged && has_media(media_, sample, bytes_) &&
            taken_.leave_media_out(media_, sample, bytes_) && use_.partial++ == 0)
            use_.first_partial = uint64_t{sample} + 1;
    }

    static bool has_packets(Bytes hint_sample) { return load_be16(hint_sample.data()) > 0; }

    static bool takes_media(const SampleConstructor& from) {
        return from.track_reference != kHintTrackItself && from.length > 0;
    }

    // Returns whether the bytes that the packet has besides those of samples may be media.
    bool begin_packet(const PacketEntry& entry, Bytes constructors) {
        own_.clear();
        size_t taken = 0;
        bool may_have_media = false;
        for (Bytes rest = constructors; !rest.empty(); rest = rest.subspan(kConstructorSize)) {
            switch (rest[0]) {
                case kImmediateConstructor: {
                    const Bytes own = rest.subspan(2, std::min(rest[1], kMaxImmediate));
                    own_.insert(own_.end(), own.begin(), own.end());
                    break;
                }
                case kSampleConstructor:
                    ++taken;
                    may_have_media = may_have_media || rest[1] == kHintTrackItself;
                    break;
                case kDescriptionConstructor:  // the function API takes it as one of a sample
                    may_have_media = true;
                    break;
                default:
                    break;
            }
        }
        may_have_media = may_have_media || !are_payload_header(media_->codec, own_, taken);
        if (is_one_each_) taken_.begin_packet(own_, entry.is_repeated(), may_have_media);
        return may_have_media;
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
    std::vector<uint8_t> own_;  // of a packet
    TakenBytes taken_;          // of the current sample
};

}  // namespace

HintUse use_of(iso_track* hint, iso_track* media, FirstSamples first, Clock::time_point deadline) {
    if (Clock::now() > deadline || samples_of(media) > kestrel::kMaxTrackSamples) return {};
    if (!places_of(hint).agree() || !places_of(media).agree()) return {};
    return Walk(hint, media, first).run(deadline);
}

}  // namespace tool
