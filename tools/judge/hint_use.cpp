// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/hint_use.h"

#include <algorithm>
#include <span>
#include <vector>

#include "common/frame_limit.h"
#include "companion/probe/hint_constructors.h"
#include "companion/probe/sample_places.h"
#include "native/codec/amr_format.h"
#include "native/stream/plausible.h"
#include "tools/judge/payloads.h"
#include "tools/judge/track_samples.h"

namespace tool {

using namespace kestrel::probe;
using namespace kestrel;

namespace {

using Bytes = std::span<const uint8_t>;

// Whether a sample has more than frames of speech without data, which a hint track may leave out.
bool has_media(iso_track* media, uint32_t sample, std::vector<uint8_t>& scratch) {
    const uint32_t size = sample_size_of(media, sample);
    if (size < 2 || !stream::is_speech(media->codec)) return size >= 2;
    if (size > kLongestSample) return true;
    const AmrBand& band = amr_band(media->codec == ISO_CODEC_SAWB);
    const auto bytes = read_sample(media, sample, scratch);
    return std::any_of(bytes.begin(), bytes.end(), [&](uint8_t header) {
        return storage_frame_size(band.frame_bits[storage_frame_type(header)]) > 1;
    });
}

// The bytes of one sample that the packets of its hint sample take.
class TakenRanges {
  public:
    void clear() { ranges_.clear(); }
    void add(const SampleConstructor& from) {
        ranges_.push_back({from.sample_offset, uint64_t{from.sample_offset} + from.length});
    }

    // Whether packets take more than one byte again. One byte may belong to two packets of RFC
    // 2190.
    bool overlap() {
        const auto is_before = [](const ByteRange& a, const ByteRange& b) {
            return a.begin < b.begin;
        };
        if (!std::is_sorted(ranges_.begin(), ranges_.end(), is_before))
            std::sort(ranges_.begin(), ranges_.end(), is_before);
        uint64_t end = 0;
        for (const ByteRange& range : ranges_) {
            if (range.begin + 1 < std::min(end, range.end)) return true;
            end = std::max(end, range.end);
        }
        return false;
    }

  private:
    std::vector<ByteRange> ranges_;
};

class Walk {
  public:
    Walk(iso_track* hint, iso_track* media, Api api, FirstSamples first)
        : hint_(hint),
          media_(media),
          api_(api),
          first_(first),
          is_one_each_(samples_of(hint) == samples_of(media)),
          is_used_(is_one_each_ ? 0 : samples_of(media)) {}

    HintUse run(Clock::time_point deadline) {
        for (uint32_t i = is_one_each_ ? first_.hint : 0; i < samples_of(hint_); ++i) {
            if (Clock::now() > deadline || sample_size_of(hint_, i) > kLongestSample) return use_;
            take(i);
        }
        const uint64_t unused = is_one_each_ ? 0 : count_unused(deadline);
        // A packet that takes nothing from the medium may hold a sample itself.
        if (unused > own_packets_) use_.unused = unused;
        return use_;
    }

  private:
    // What a packet has besides bytes of the medium.
    struct Own {
        bool is_from_hints = false;  // bytes of hint samples
        bool is_header = true;       // the others are at most a payload header

        bool may_be_media() const { return is_from_hints || !is_header; }
    };

    void take(uint32_t sample) {
        const auto bytes = read_sample(hint_, sample, bytes_);
        bool is_misled = false, takes_any = false, has_other_header = false, is_mistimed = false;
        uint64_t own_packets = 0;
        taken_.clear();
        const bool is_whole =
            for_each_packet_entry(bytes, [&](const PacketEntry& entry, Bytes constructors) {
                const Own own = own_of(constructors);
                own_packets += own.may_be_media() ? 1 : 0;
                has_other_header = has_other_header || !own.is_header;
                is_mistimed = is_mistimed || is_far(entry.relative_time);
                for_each_taken(constructors, [&](const SampleConstructor& from) {
                    takes_any = true;
                    is_misled = is_misled || (sample >= first_.hint && misleads(sample, from));
                    if (is_one_each_ && !entry.is_repeated()) taken_.add(from);
                    if (from.sample_number - 1 < is_used_.size())
                        is_used_[from.sample_number - 1] = true;
                });
            });
        if (!takes_any) own_packets_ += own_packets;
        if (is_one_each_ && !is_misled) is_misled = taken_.overlap();
        if (is_mistimed && use_.mistimed++ == 0) use_.first_mistimed = uint64_t{sample} + 1;
        if (is_misled && use_.misled++ == 0) use_.first_misled = uint64_t{sample} + 1;
        // A hint sample without packets, or with one that cannot be read, is reported elsewhere.
        // Payloads of speech that is not octet-aligned take no bytes of samples.
        const bool is_judged =
            is_one_each_ && !is_misled && is_whole && has_packets(bytes) &&
            (takes_any || !has_other_header || !stream::is_speech(media_->codec));
        bool is_partial = is_judged && leaves_media_out(sample, bytes);
        // Of samples of other numbers, whether the frames are cut.
        if (!is_one_each_ && is_whole && takes_any && stream::is_speech(media_->codec))
            is_partial = cuts_frames(bytes);
        if (is_partial && use_.partial++ == 0) use_.first_partial = uint64_t{sample} + 1;
    }

    // A time relative to the sample, in units of the RTP clock.
    bool is_far(int32_t time) const {
        const int64_t most = int64_t{kFurthestPacket} * hint_->rtp_timescale;
        return most > 0 && (time > most || time < -most);
    }

    static bool has_packets(Bytes hint_sample) { return load_be16(hint_sample.data()) > 0; }

    bool is_of_medium(const SampleConstructor& from) const {
        return api_ == Api::kClass || from.track_reference != kHintTrackItself;
    }

    // Whether the API takes bytes of samples by a constructor. The function API takes one of a
    // sample description as one of a sample.
    bool takes(Bytes constructor) const {
        return constructor[0] == kSampleConstructor ||
               (api_ == Api::kFunction && constructor[0] == kDescriptionConstructor);
    }

    // Calls `see` with each constructor that takes bytes of the medium.
    template <typename See>
    void for_each_taken(Bytes constructors, See see) const {
        for (; !constructors.empty(); constructors = constructors.subspan(kConstructorSize)) {
            if (!takes(constructors)) continue;
            const SampleConstructor from = load_sample_constructor(constructors.data());
            if (is_of_medium(from) && from.length > 0) see(from);
        }
    }

    Own own_of(Bytes constructors) {
        immediate_.clear();
        Own own;
        size_t taken = 0;
        for (; !constructors.empty(); constructors = constructors.subspan(kConstructorSize)) {
            if (constructors[0] == kImmediateConstructor) {
                const Bytes data = data_of(constructors);
                immediate_.insert(immediate_.end(), data.begin(), data.end());
            } else if (takes(constructors)) {
                const bool is_media = is_of_medium(load_sample_constructor(constructors.data()));
                own.is_from_hints = own.is_from_hints || !is_media;
                ++taken;
            }
        }
        own.is_header = are_payload_header(media_->codec, immediate_, taken);
        return own;
    }

    // The bytes of an immediate constructor.
    static Bytes data_of(Bytes constructor) {
        return constructor.subspan(2, std::min(constructor[1], kMaxImmediate));
    }

    bool misleads(uint32_t sample, const SampleConstructor& from) const {
        const uint32_t number = from.sample_number - 1;  // from 0
        if (is_one_each_ && number != sample) return true;
        return number >= samples_of(media_) ||
               uint64_t{from.sample_offset} + from.length > sample_size_of(media_, number);
    }

    // Whether a receiver does not get the media of a sample from the packets of its hint sample.
    bool leaves_media_out(uint32_t sample, Bytes hint_sample) {
        const uint32_t size = sample_size_of(media_, sample);
        if (size > kLongestSample || !has_media(media_, sample, media_bytes_)) return false;
        const auto media = read_sample(media_, sample, media_bytes_);
        if (media.size() < size) return false;
        payloads_.clear();
        bool is_known = true;
        for_each_packet_entry(hint_sample, [&](const PacketEntry& entry, Bytes constructors) {
            if (entry.is_repeated()) return;
            payloads_.begin(entry.rtp_header & kRtpPayloadType);
            for (; !constructors.empty(); constructors = constructors.subspan(kConstructorSize))
                is_known = is_known && append(constructors.first(kConstructorSize), media);
        });
        return is_known && payloads_.lack_media_of(media_, media);
    }

    // Whether packets of speech frames of any samples do not end with a frame.
    bool cuts_frames(Bytes hint_sample) {
        payloads_.clear();
        bool is_known = true;
        for_each_packet_entry(hint_sample, [&](const PacketEntry& entry, Bytes constructors) {
            payloads_.begin(entry.rtp_header & kRtpPayloadType);
            for (; !constructors.empty(); constructors = constructors.subspan(kConstructorSize)) {
                const Bytes one = constructors.first(kConstructorSize);
                const uint32_t number = load_sample_constructor(one.data()).sample_number - 1;
                const bool is_read = is_known && takes(one) && number < samples_of(media_) &&
                                     sample_size_of(media_, number) <= kLongestSample;
                const Bytes media = is_read ? read_sample(media_, number, media_bytes_) : Bytes();
                is_known = is_known && append(one, media);
            }
        });
        return is_known && !payloads_.end_with_frames(media_->codec == ISO_CODEC_SAWB);
    }

    // Appends what a constructor adds to its packet. Returns false where the payloads are too long,
    // or it takes bytes that are not there.
    bool append(Bytes constructor, Bytes media) {
        if (constructor[0] == kImmediateConstructor) payloads_.append(data_of(constructor));
        if (!takes(constructor)) return true;
        const SampleConstructor from = load_sample_constructor(constructor.data());
        if (from.length == 0) return true;
        if (payloads_.size() > 2 * kLongestSample) return false;
        if (!is_of_medium(from)) return append_from_hints(from);
        if (uint64_t{from.sample_offset} + from.length > media.size()) return false;
        payloads_.append(media.subspan(from.sample_offset, from.length));
        return true;
    }

    bool append_from_hints(const SampleConstructor& from) {
        if (from.sample_number - 1 > INT32_MAX || from.sample_offset > INT32_MAX) return false;
        own_bytes_.resize(from.length);
        const int got = isoFFreadAt(hint_, static_cast<int>(from.sample_number - 1),
                                    static_cast<int>(from.sample_offset), own_bytes_.data(),
                                    from.length, nullptr, nullptr);
        payloads_.append(own_bytes_);
        return got == from.length;
    }

    uint64_t count_unused(Clock::time_point deadline) {
        uint64_t unused = 0;
        for (uint32_t i = first_.media; i < is_used_.size(); ++i) {
            if (is_used_[i]) continue;
            if (Clock::now() > deadline) return 0;
            unused += has_media(media_, i, media_bytes_) ? 1 : 0;
        }
        return unused;
    }

    iso_track* hint_;
    iso_track* media_;
    Api api_;
    FirstSamples first_;
    bool is_one_each_;
    std::vector<bool> is_used_;  // of the media samples, where the counts differ
    uint64_t own_packets_ = 0;
    HintUse use_;
    std::vector<uint8_t> bytes_;        // of the current hint sample
    std::vector<uint8_t> media_bytes_;  // of its sample
    std::vector<uint8_t> own_bytes_;    // of a constructor
    std::vector<uint8_t> immediate_;    // of a packet
    TakenRanges taken_;                 // of the current sample
    Payloads payloads_;                 // of the current hint sample
};

}  // namespace

HintUse use_of(iso_track* hint, iso_track* media, Api api, FirstSamples first,
               Clock::time_point deadline) {
    if (Clock::now() > deadline || samples_of(media) > kestrel::kMaxTrackSamples) return {};
    if (!places_of(hint).agree() || !places_of(media).agree()) return {};
    return Walk(hint, media, api, first).run(deadline);
}

}  // namespace tool
