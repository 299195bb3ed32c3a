// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/h264_pictures.h"

#include <algorithm>

#include "native/codec/golomb_reader.h"
#include "native/codec/h264_units.h"

namespace kestrel::packer {
namespace {

constexpr int kLengthSize = 4;       // of a sample's NAL units
constexpr size_t kHeaderBytes = 64;  // of a slice, enough for what is read of its header

// Returns a unit without its header byte and without emulation prevention bytes (7.3.1).
std::vector<uint8_t> unescaped(NalUnit unit, size_t most) {
    std::vector<uint8_t> bytes;
    unsigned zeros = 0;
    for (const uint8_t byte : unit.subspan(1)) {
        if (bytes.size() == most) break;
        const bool is_escape = zeros >= 2 && byte == 3;
        zeros = byte == 0 ? zeros + 1 : 0;
        if (!is_escape) bytes.push_back(byte);
    }
    return bytes;
}

void skip_scaling_list(GolombReader& reader, unsigned size) {
    int32_t last = 8;
    int32_t next = 8;
    for (unsigned i = 0; i < size && reader.ok(); ++i) {
        if (next != 0) next = (last + reader.se() % 256 + 256) % 256;
        if (next != 0) last = next;
    }
}

void read_chroma_format(GolombReader& reader, H264Sequence& sequence) {
    constexpr uint32_t kAllPlanes = 3;  // 4:4:4
    constexpr unsigned kSmallLists = 6, kSmallList = 16, kLargeList = 64;
    sequence.chroma_format = reader.ue();
    if (sequence.chroma_format == kAllPlanes) sequence.has_separate_planes = reader.flag();
    sequence.luma_depth = 8 + reader.ue();
    sequence.chroma_depth = 8 + reader.ue();
    reader.skip(1);  // qpprime_y_zero_transform_bypass_flag
    if (!reader.flag()) return;
    const unsigned lists = sequence.chroma_format == kAllPlanes ? 12 : 8;
    for (unsigned i = 0; i < lists; ++i) {
        if (reader.flag()) skip_scaling_list(reader, i < kSmallLists ? kSmallList : kLargeList);
    }
}

constexpr uint32_t kMaxCycle = 255;  // num_ref_frames_in_pic_order_cnt_cycle

void read_order_type(GolombReader& reader, H264Sequence& sequence) {
    sequence.order_type = reader.ue();
    if (sequence.order_type == 0) {
        sequence.order_bits = 4 + reader.ue();
    } else if (sequence.order_type == 1) {
        sequence.is_order_regular = reader.flag();
        sequence.offset_of_unreferenced = reader.se();
        reader.se();  // offset_for_top_to_bottom_field
        // One more than there may be shows that the set is out of range; the rest is not kept.
        for (uint32_t left = std::min(reader.ue(), kMaxCycle + 1); left > 0 && reader.ok(); --left)
            sequence.cycle_offsets.push_back(reader.se());
    }
}

// Hypothetical reference decoder parameters (E.1.2).
void skip_decoder_model(GolombReader& reader) {
    constexpr unsigned kScales = 8, kLengths = 20;
    constexpr uint32_t kLastSet = 31;
    const uint32_t last = reader.ue();
    reader.skip(kScales);
    for (uint32_t i = 0; i <= std::min(last, kLastSet); ++i) {
        reader.ue();     // bit rate
        reader.ue();     // buffer size
        reader.skip(1);  // constant bit rate
    }
    reader.skip(kLengths);
}

// Video usability information (E.1.1), up to the number of reordered frames.
uint32_t read_reordered_frames(GolombReader& reader) {
    constexpr uint32_t kExtendedAspect = 255, kMaxFrames = 16;
    if (reader.flag() && reader.get(8) == kExtendedAspect) reader.skip_any(32);
    if (reader.flag()) reader.skip(1);  // overscan
    if (reader.flag()) {                // video signal
        reader.skip(4);
        if (reader.flag()) reader.skip(24);
    }
    if (reader.flag()) {  // chroma location
        reader.ue();
        reader.ue();
    }
    if (reader.flag()) reader.skip_any(65);  // timing
    const bool has_nal_model = reader.flag();
    if (has_nal_model) skip_decoder_model(reader);
    const bool has_vcl_model = reader.flag();
    if (has_vcl_model) skip_decoder_model(reader);
    if (has_nal_model || has_vcl_model) reader.skip(1);  // low delay
    reader.skip(1);                                      // picture structures in messages
    if (!reader.flag()) return 0;                        // bitstream restriction
    reader.skip(1);
    for (int i = 0; i < 4; ++i)
        reader.ue();  // limits of bytes, bits and vectors
    const uint32_t frames = reader.ue();
    return reader.ok() && frames <= kMaxFrames ? frames : 0;
}

}  // namespace

bool H264Sequence::has_chroma_format() const {
    static constexpr std::array<uint8_t, 12> kProfiles = {100, 110, 122, 244, 44,  83,
                                                          86,  118, 128, 138, 139, 134};
    return std::find(kProfiles.begin(), kProfiles.end(), profile) != kProfiles.end();
}

std::optional<H264Sequence> read_h264_sequence(NalUnit unit, uint32_t& id) {
    constexpr unsigned kMaxBits = 16;
    constexpr uint32_t kMaxOrderType = 2, kMaxDepth = 14, kMaxChromaFormat = 3;
    const std::vector<uint8_t> bytes = unescaped(unit, SIZE_MAX);
    GolombReader reader(bytes);
    H264Sequence sequence;
    sequence.profile = static_cast<uint8_t>(reader.get(8));
    reader.skip(16);  // constraints and level
    id = reader.ue();
    if (sequence.has_chroma_format()) read_chroma_format(reader, sequence);
    sequence.frame_number_bits = 4 + reader.ue();
    read_order_type(reader, sequence);
    reader.ue();     // max_num_ref_frames
    reader.skip(1);  // gaps_in_frame_num_value_allowed_flag
    reader.ue();     // width
    reader.ue();     // height
    sequence.has_frames_only = reader.flag();
    if (!sequence.has_frames_only) reader.skip(1);  // mb_adaptive_frame_field_flag
    reader.skip(1);                                 // direct_8x8_inference_flag
    if (reader.flag()) {                            // cropping
        for (int i = 0; i < 4; ++i)
            reader.ue();
    }
    const bool is_in_range =
        sequence.frame_number_bits <= kMaxBits && sequence.order_bits <= kMaxBits &&
        sequence.order_type <= kMaxOrderType && sequence.cycle_offsets.size() <= kMaxCycle &&
        sequence.chroma_format <= kMaxChromaFormat && sequence.luma_depth <= kMaxDepth &&
        sequence.chroma_depth <= kMaxDepth;
    if (!reader.ok() || !is_in_range) return std::nullopt;
    if (reader.flag()) sequence.reordered_frames = read_reordered_frames(reader);
    return sequence;
}

void H264Pictures::take_parameter_set(NalUnit unit) {
    constexpr uint32_t kMaxSequences = 32, kMaxPictures = 256;
    if (unit.empty()) return;
    uint32_t id = 0;
    if (nal_type(unit) == kSequenceSet) {
        const auto sequence = read_h264_sequence(unit, id);
        if (!sequence || id >= kMaxSequences) return;
        sequences_[id] = *sequence;
        shown_after_ = std::max(shown_after_, sequence->reordered_frames);
    } else if (nal_type(unit) == kPictureSet) {
        const std::vector<uint8_t> bytes = unescaped(unit, kHeaderBytes);
        GolombReader reader(bytes);
        id = reader.ue();
        const uint32_t sequence = reader.ue();
        if (reader.ok() && id < kMaxPictures) pictures_[id] = {sequence};
    }
}

bool H264Pictures::read_slice(NalUnit unit, Slice& slice, const H264Sequence*& sequence) const {
    constexpr uint8_t kReferenceBits = 0x60;
    const std::vector<uint8_t> bytes = unescaped(unit, kHeaderBytes);
    GolombReader reader(bytes);
    reader.ue();  // first_mb_in_slice
    reader.ue();  // slice_type
    const auto picture = pictures_.find(reader.ue());
    if (picture == pictures_.end()) return false;
    const auto found = sequences_.find(picture->second.sequence);
    if (found == sequences_.end()) return false;
    sequence = &found->second;
    slice.is_idr = nal_type(unit) == kIdrSlice;
    slice.is_reference = (unit[0] & kReferenceBits) != 0;
    if (sequence->has_separate_planes) reader.skip(2);  // colour_plane_id
    slice.frame_number = reader.get(sequence->frame_number_bits);
    if (!sequence->has_frames_only && reader.flag()) reader.skip(1);  // bottom_field_flag
    if (slice.is_idr) reader.ue();                                    // idr_pic_id
    if (sequence->order_type == 0) slice.order_low = reader.get(sequence->order_bits);
    if (sequence->order_type == 1 && !sequence->is_order_regular) slice.order_change = reader.se();
    return reader.ok();
}

// 8.2.1.1: the low bits are declared; the high bits follow from the previous reference picture.
int64_t H264Pictures::order_from_low_bits(const Slice& slice, const H264Sequence& sequence) {
    const int64_t range = int64_t{1} << sequence.order_bits;
    const int64_t ahead = int64_t{slice.order_low} - previous_low_;
    int64_t high = previous_high_;
    if (ahead <= -range / 2) high += range;
    if (ahead > range / 2) high -= range;
    if (slice.is_reference) {
        previous_high_ = high;
        previous_low_ = slice.order_low;
    }
    return high + slice.order_low;
}

// 8.2.1.2, and 8.2.1.3 for decoding order.
int64_t H264Pictures::order_from_frame_number(const Slice& slice, const H264Sequence& sequence) {
    if (slice.frame_number < previous_frame_number_)
        frame_number_base_ += int64_t{1} << sequence.frame_number_bits;
    previous_frame_number_ = slice.frame_number;
    const int64_t frame = frame_number_base_ + slice.frame_number;
    if (sequence.order_type == 2) return 2 * frame - (slice.is_reference ? 0 : 1);

    // Unsigned, so that offsets of a damaged set wrap.
    const uint64_t cycle = sequence.cycle_offsets.size();
    uint64_t counted = cycle == 0 ? 0 : static_cast<uint64_t>(frame);
    if (!slice.is_reference && counted > 0) --counted;
    auto order = static_cast<uint64_t>(int64_t{slice.order_change});
    if (counted > 0) {
        uint64_t of_cycle = 0;
        for (const int32_t offset : sequence.cycle_offsets)
            of_cycle += static_cast<uint64_t>(int64_t{offset});
        order += (counted - 1) / cycle * of_cycle;
        for (uint64_t i = 0; i <= (counted - 1) % cycle; ++i)
            order += static_cast<uint64_t>(int64_t{sequence.cycle_offsets[static_cast<size_t>(i)]});
    }
    if (!slice.is_reference)
        order += static_cast<uint64_t>(int64_t{sequence.offset_of_unreferenced});
    return static_cast<int64_t>(order);
}

int64_t H264Pictures::picture_order(const Slice& slice, const H264Sequence& sequence) {
    if (slice.is_idr) {
        previous_high_ = frame_number_base_ = 0;
        previous_low_ = previous_frame_number_ = 0;
    }
    return sequence.order_type == 0 ? order_from_low_bits(slice, sequence)
                                    : order_from_frame_number(slice, sequence);
}

// The first slice defines the order. Without its parameter sets that is decoding order.
Picture H264Pictures::look(std::span<const uint8_t> sample) {
    constexpr uint8_t kFirstSlice = 1;
    constexpr int64_t kMaxOrder = INT32_MAX;
    Picture picture;
    auto order = static_cast<int64_t>(2 * number_);
    NalUnits units(sample, kLengthSize);
    for (NalUnit unit; units.next(unit);) {
        take_parameter_set(unit);
        const uint8_t type = nal_type(unit);
        if (type != kFirstSlice && type != kIdrSlice) continue;
        picture.is_sync = type == kIdrSlice;
        if (picture.is_sync) {
            ++coded_sequences_;
            number_ = 0;
            order = 0;
        }
        Slice slice;
        const H264Sequence* sequence = nullptr;
        if (read_slice(unit, slice, sequence)) order = picture_order(slice, *sequence);
        break;
    }
    ++number_;
    const int64_t shown = std::clamp(order, -kMaxOrder, kMaxOrder) + kMaxOrder;
    picture.display_key = coded_sequences_ << 32 | static_cast<uint32_t>(shown);
    return picture;
}

}  // namespace kestrel::packer
