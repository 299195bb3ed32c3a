// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/payloads.h"

#include <algorithm>
#include <array>
#include <utility>

#include "native/codec/amr_format.h"
#include "native/codec/h263_payload.h"
#include "native/codec/h264_units.h"
#include "native/codec/mpeg4_visual.h"
#include "native/codec/payload_types.h"
#include "native/stream/depacketise.h"
#include "native/stream/plausible.h"

namespace tool {

using namespace kestrel;
using stream::Medium;

namespace {

using Bytes = std::span<const uint8_t>;

bool are_equal(Bytes a, Bytes b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// --- payload headers ---

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

// --- parts of a sample ---

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
        if (!is_header) see(sample.subspan(begin, end - begin));
        begin = end;
    }
}

bool is_slice(NalUnit unit) {
    constexpr uint8_t kFirstSlice = 1;
    return nal_type(unit) >= kFirstSlice && nal_type(unit) <= kIdrSlice;
}

// Whether a unit may be in packets alone: a parameter set or a delimiter.
bool is_parameter(NalUnit unit) {
    constexpr uint8_t kDelimiter = 9;
    return nal_type(unit) >= kSequenceSet && nal_type(unit) <= kDelimiter;
}

// Follows the fragments of units (FU-A): each has one that begins it, and ends with the next that
// ends one.
class Fragments {
  public:
    // Takes the next payload; returns whether it is one and may follow the one before.
    bool may_follow(Bytes payload) {
        constexpr uint8_t kForbidden = 0x80, kStart = 0x80, kEnd = 0x40;
        if (payload.empty() || (payload[0] & kForbidden) != 0) return false;
        const bool is_fragment = payload.size() >= kFuHeaders && nal_type(payload) == kFuA;
        const bool was_open = std::exchange(is_open_, is_fragment && (payload[1] & kEnd) == 0);
        return was_open == (is_fragment && (payload[1] & kStart) == 0);
    }
    bool are_whole() const { return !is_open_; }

  private:
    bool is_open_ = false;
};

// Whether two units are the same but for their importance (nal_ref_idc).
bool are_same(NalUnit a, NalUnit b) {
    return !a.empty() && !b.empty() && nal_type(a) == nal_type(b) &&
           are_equal(a.subspan(1), b.subspan(1));
}

struct SpeechFrame {
    uint8_t header;  // of storage format
    Bytes bytes;     // without it; not empty
};

// Of a sample in storage format that ends with a frame.
std::vector<SpeechFrame> frames_of_sample(Bytes sample, const AmrBand& band) {
    std::vector<SpeechFrame> frames;
    while (!sample.empty()) {
        const int type = storage_frame_type(sample[0]);
        const auto size = static_cast<size_t>(storage_frame_size(band.frame_bits[type]));
        if (size > 1) frames.push_back({sample[0], sample.subspan(1, size - 1)});
        sample = sample.subspan(size);
    }
    return frames;
}

// Adds the frames of an octet-aligned payload (RFC 4867, 4.4). Returns false where they do not end
// with it.
bool add_frames(Bytes payload, const AmrBand& band, std::vector<SpeechFrame>& frames) {
    constexpr size_t kModeRequestSize = 1;
    size_t table_end = kModeRequestSize;
    while (table_end < payload.size() && (payload[table_end] & kMoreFollow) != 0)
        ++table_end;
    if (++table_end > payload.size()) return false;
    size_t at = table_end;
    for (const uint8_t entry : payload.first(table_end).subspan(kModeRequestSize)) {
        const int type = storage_frame_type(entry);
        const auto size = static_cast<size_t>(storage_frame_size(band.frame_bits[type])) - 1;
        if (size > payload.size() - at) return false;
        const auto header = static_cast<uint8_t>(entry & ~kMoreFollow);
        if (size > 0) frames.push_back({header, payload.subspan(at, size)});
        at += size;
    }
    return at == payload.size();
}

}  // namespace

bool are_payload_header(int32_t codec, Bytes own, size_t taken) {
    constexpr size_t kLengthSize = 2;  // of a unit in STAP-A (RFC 6184, 5.7.1)
    if (codec == ISO_CODEC_S263) return is_h263_header(own);
    if (codec == ISO_CODEC_AVC1) return own.size() <= kFuHeaders + kLengthSize * taken;
    return stream::is_speech(codec) ? is_speech_header(own) : own.empty();
}

// --- joining ---

void Payloads::clear() {
    bytes_.clear();
    begins_.clear();
}

template <typename See>
void Payloads::for_each(See see) const {
    for (size_t i = 0; i < begins_.size(); ++i) {
        const size_t end = i + 1 < begins_.size() ? begins_[i + 1] : bytes_.size();
        see(Bytes(bytes_).subspan(begins_[i], end - begins_[i]));
    }
}

bool Payloads::lack_picture(Bytes picture) const {
    bool is_spoilt = false;
    for_each([&](Bytes payload) { is_spoilt = is_spoilt || stream::is_spoilt_rfc2190(payload); });
    std::vector<uint8_t> joined;
    const auto join = stream::make_depacketiser(
        payload_type_ == kRfc2190PayloadType ? Medium::kH263Rfc2190 : Medium::kH263Rfc4629, {},
        {[&](Bytes bytes) { joined.insert(joined.end(), bytes.begin(), bytes.end()); }});
    for_each([&](Bytes payload) { join->packet(payload); });
    join->finish();
    return !is_spoilt && !are_equal(joined, picture);
}

bool Payloads::lack_vops(Bytes sample) const {
    std::vector<uint8_t> joined;
    const auto join = stream::make_depacketiser(
        Medium::kMpeg4, {},
        {[&](Bytes bytes) { joined.insert(joined.end(), bytes.begin(), bytes.end()); }});
    for_each([&](Bytes payload) { join->packet(payload); });
    std::vector<Bytes> vops;
    for_each_vop(joined, [&](Bytes vop) { vops.push_back(vop); });
    size_t found = 0;
    bool is_same = true;
    for_each_vop(sample, [&](Bytes vop) {
        is_same = is_same && found < vops.size() && are_equal(vop, vops[found++]);
    });
    return !is_same || found < vops.size();
}

bool Payloads::lack_slices(Bytes sample, int length_size) const {
    if (!stream::is_h264_sample(sample, length_size)) return false;
    std::vector<uint8_t> joined;
    std::vector<size_t> begins;
    const auto join = stream::make_depacketiser(
        Medium::kH264, {},
        {[&](Bytes bytes) { joined.insert(joined.end(), bytes.begin(), bytes.end()); },
         [&] { begins.push_back(joined.size()); }});
    Fragments fragments;
    bool are_there = true;
    for_each([&](Bytes payload) {
        are_there = fragments.may_follow(payload) && join->packet(payload) && are_there;
    });
    are_there = are_there && fragments.are_whole();
    begins.push_back(joined.size());
    size_t next = 0;
    const auto is_next = [&](auto is_wanted) {
        if (next + 1 >= begins.size()) return false;
        return is_wanted(Bytes(joined).subspan(begins[next], begins[next + 1] - begins[next]));
    };
    NalUnits units(sample, length_size);
    for (NalUnit unit; are_there && units.next(unit);) {
        const auto is_same = [&](NalUnit other) { return are_same(unit, other); };
        while (is_next(is_parameter) && !is_next(is_same))
            ++next;
        if (is_next(is_same)) {
            ++next;
        } else {
            are_there = !is_slice(unit);  // others may be left out
        }
    }
    while (is_next(is_parameter))
        ++next;
    return !are_there || next + 1 < begins.size();
}

bool Payloads::lack_frames(Bytes sample, bool is_wide) const {
    const AmrBand& band = amr_band(is_wide);
    if (!stream::ends_with_speech_frame(sample, band)) return false;
    const std::vector<SpeechFrame> wanted = frames_of_sample(sample, band);
    std::vector<SpeechFrame> found;
    bool is_whole = true;
    for_each([&](Bytes payload) { is_whole = add_frames(payload, band, found) && is_whole; });
    return !is_whole || !std::equal(wanted.begin(), wanted.end(), found.begin(), found.end(),
                                    [](const SpeechFrame& a, const SpeechFrame& b) {
                                        return a.header == b.header && are_equal(a.bytes, b.bytes);
                                    });
}

bool Payloads::end_with_frames(bool is_wide) const {
    std::vector<SpeechFrame> frames;
    bool is_whole = true;
    for_each([&](Bytes payload) {
        is_whole = is_whole && add_frames(payload, amr_band(is_wide), frames);
    });
    return is_whole;
}

bool Payloads::lack_media_of(const iso_track* media, Bytes sample) const {
    switch (media->codec) {
        case ISO_CODEC_S263:
            return lack_picture(sample);
        case ISO_CODEC_MP4V:
            return lack_vops(sample);
        case ISO_CODEC_AVC1:
            return lack_slices(sample, media->nal_length_size);
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
            return lack_frames(sample, media->codec == ISO_CODEC_SAWB);
        default:
            return false;
    }
}

}  // namespace tool
