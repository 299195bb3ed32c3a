// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/taken_bytes.h"

#include <algorithm>
#include <array>

#include "native/codec/amr_format.h"
#include "native/codec/h263_payload.h"
#include "native/codec/h264_units.h"
#include "native/codec/mpeg4_visual.h"
#include "native/stream/plausible.h"
#include "tools/judge/track_samples.h"

namespace tool {

using namespace kestrel;
using kestrel::probe::sample_size_of;

namespace {

using Bytes = std::span<const uint8_t>;

bool is_speech(int32_t codec) {
    return codec == ISO_CODEC_SAMR || codec == ISO_CODEC_SAWB;
}

// RFC 2190, 5, or RFC 4629, 5.1, without VRC and extra picture header.
bool is_h263_header(Bytes own) {
    constexpr uint8_t kModeBOrC = 0x80, kModeC = 0x40;
    constexpr size_t kModeCSize = 12;
    if (own.empty() || own.size() == kRfc4629Size) return true;
    if ((own[0] & kModeBOrC) == 0) return own.size() <= kRfc2190ModeASize;
    return own.size() <= ((own[0] & kModeC) == 0 ? kRfc2190ModeBSize : kModeCSize);
}

// A mode request and a table of contents (RFC 4867, 4.4), octet-aligned.
bool is_speech_header(Bytes own) {
    constexpr uint8_t kReserved = 0x0F, kPadding = 0x03;
    if (own.empty()) return true;
    const Bytes table = own.subspan(1);
    return (own[0] & kReserved) == 0 && std::all_of(table.begin(), table.end(), [&](auto& entry) {
               const bool has_more = (entry & kMoreFollow) != 0;
               return (entry & kPadding) == 0 && has_more == (&entry != &table.back());
           });
}

// How many zeros of the start code that it begins with a packet leaves out (RFC 4629, 5.1): as many
// bytes as it has of the payload header. Some hinters take its second byte from the start code.
uint8_t omitted_zeros(Bytes own) {
    constexpr uint8_t kPictureStart = 0x04;  // P
    const bool omits = !own.empty() && own.size() <= kRfc4629Size && (own[0] & kPictureStart) != 0;
    return omits ? static_cast<uint8_t>(own.size()) : uint8_t{0};
}

bool begins_with_zeros(Bytes bytes) {
    return bytes.size() >= 2 && bytes[0] == 0 && bytes[1] == 0;
}

// --- the parts of a sample that packets deliver: see(begin, end) returns whether to go on ---

template <typename See>
void for_each_frame(Bytes sample, const AmrBand& band, See see) {
    if (!stream::ends_with_speech_frame(sample, band)) return;
    for (size_t at = 0; at < sample.size();) {
        const int type = storage_frame_type(sample[at]);
        const size_t end = at + static_cast<size_t>(storage_frame_size(band.frame_bits[type]));
        if (!see(at + 1, end)) return;  // its header becomes an entry of the table of contents
        at = end;
    }
}

template <typename See>
void for_each_slice(Bytes sample, int length_size, See see) {
    constexpr uint8_t kFirstSlice = 1;
    if (!stream::is_h264_sample(sample, length_size)) return;
    NalUnits units(sample, length_size);
    for (NalUnit unit; units.next(unit);) {
        const auto begin = static_cast<size_t>(unit.data() - sample.data());
        const bool is_slice = nal_type(unit) >= kFirstSlice && nal_type(unit) <= kIdrSlice;
        // FU-A has the unit's first byte in its own headers.
        if (is_slice && !see(begin + 1, begin + unit.size())) return;
    }
}

// Pictures, without the headers that a description may have as well.
template <typename See>
void for_each_vop(Bytes sample, See see) {
    constexpr std::array<uint8_t, 3> kPrefix = {0, 0, 1};
    const auto next_code = [&](size_t from) {
        return static_cast<size_t>(std::search(sample.begin() + static_cast<ptrdiff_t>(from),
                                               sample.end(), kPrefix.begin(), kPrefix.end()) -
                                   sample.begin());
    };
    for (size_t begin = 0; begin < sample.size();) {
        const size_t end = next_code(std::min(begin + kPrefix.size(), sample.size()));
        const bool is_coded = begin == next_code(begin);
        const bool is_header = is_coded && begin + kPrefix.size() < sample.size() &&
                               sample[begin + kPrefix.size()] != kVop;
        if (!is_header && !see(begin, end)) return;
        begin = end;
    }
}

template <typename See>
void for_each_part(const iso_track* media, Bytes sample, See see) {
    switch (media->codec) {
        case ISO_CODEC_S263:
            see(0, sample.size());
            break;
        case ISO_CODEC_MP4V:
            for_each_vop(sample, see);
            break;
        case ISO_CODEC_AVC1:
            for_each_slice(sample, media->nal_length_size, see);
            break;
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
            for_each_frame(sample, amr_band(media->codec == ISO_CODEC_SAWB), see);
            break;
        default:
            break;
    }
}

}  // namespace

bool are_payload_header(int32_t codec, Bytes own, size_t taken) {
    constexpr size_t kLengthSize = 2;  // of a unit in STAP-A (RFC 6184, 5.7.1)
    if (codec == ISO_CODEC_S263) return is_h263_header(own);
    if (codec == ISO_CODEC_AVC1) return own.size() <= kFuHeaders + kLengthSize * taken;
    return is_speech(codec) ? is_speech_header(own) : own.empty();
}

void TakenBytes::clear() {
    taken_.clear();
    is_sorted_ = true;
    may_have_media_ = false;
}

void TakenBytes::begin_packet(Bytes own, bool is_repeated, bool may_have_media) {
    may_have_media_ = may_have_media_ || may_have_media;
    is_repeated_ = is_repeated;
    omitted_zeros_ = omitted_zeros(own);
}

void TakenBytes::add(const SampleConstructor& from) {
    const uint32_t begin = from.sample_offset;
    is_sorted_ = is_sorted_ && (taken_.empty() || taken_.back().begin <= begin);
    taken_.push_back({begin, from.length, is_repeated_, omitted_zeros_});
    omitted_zeros_ = 0;
}

void TakenBytes::sort() {
    if (is_sorted_) return;
    std::sort(taken_.begin(), taken_.end(),
              [](const Taken& a, const Taken& b) { return a.begin < b.begin; });
    is_sorted_ = true;
}

bool TakenBytes::overlap() {
    sort();
    uint64_t end = 0;
    for (const Taken& one : taken_) {
        if (one.is_repeated) continue;
        if (uint64_t{one.begin} + 1 < std::min(end, one.end())) return true;
        end = std::max(end, one.end());
    }
    return false;
}

std::vector<TakenBytes::Gap> TakenBytes::gaps(uint64_t size) const {
    std::vector<Gap> gaps;
    uint64_t end = 0;
    for (const Taken& one : taken_) {
        if (one.begin > end) gaps.push_back({end, one.begin, one.omitted_zeros});
        end = std::max(end, one.end());
    }
    if (end < size) gaps.push_back({end, size, 0});
    return gaps;
}

bool TakenBytes::leave_media_out(iso_track* media, uint32_t sample, std::vector<uint8_t>& scratch) {
    const uint32_t size = sample_size_of(media, sample);
    if (may_have_media_ || size > kLongestSample) return false;
    sort();
    std::vector<Gap> left_out = gaps(size);
    if (left_out.empty()) return false;
    const Bytes bytes = read_sample(media, sample, scratch);
    if (bytes.size() < size) return false;
    if (media->codec == ISO_CODEC_S263) {
        std::erase_if(left_out, [&](const Gap& gap) {
            return gap.end - gap.begin == gap.zeros &&
                   begins_with_zeros(bytes.subspan(static_cast<size_t>(gap.begin)));
        });
    }
    bool is_media = false;
    for_each_part(media, bytes, [&](size_t begin, size_t end) {
        const auto gap = std::upper_bound(left_out.begin(), left_out.end(), begin,
                                          [](size_t at, const Gap& one) { return at < one.end; });
        is_media = begin < end && gap != left_out.end() && gap->begin < end;
        return !is_media;
    });
    return is_media;
}

}  // namespace tool
