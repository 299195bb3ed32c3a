// SPDX-License-Identifier: Apache-2.0
// The display order of the pictures of an H.264 stream (ITU-T H.264, 8.2.1).
#ifndef KESTREL_COMPANION_PACKER_H264_PICTURES_H
#define KESTREL_COMPANION_PACKER_H264_PICTURES_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "companion/packer/pictures.h"
#include "native/codec/nal_unit.h"

namespace kestrel::packer {

// Fields of a sequence parameter set (7.3.2.1.1) that define the order.
struct H264Sequence {
    uint8_t profile = 0;
    uint32_t chroma_format = 1;  // 4:2:0
    uint32_t luma_depth = 8, chroma_depth = 8;
    bool has_separate_planes = false;
    unsigned frame_number_bits = 4;
    uint32_t order_type = 0;
    unsigned order_bits = 4;  // type 0
    // Type 1.
    bool is_order_regular = false;
    int32_t offset_of_unreferenced = 0;
    std::vector<int32_t> cycle_offsets;
    bool has_frames_only = true;
    uint32_t reordered_frames = 0;  // as declared; 0 without a declaration

    // Whether the profile declares chroma format and bit depths.
    bool has_chroma_format() const;
};

// Returns nothing for a set that is truncated or has values out of range.
std::optional<H264Sequence> read_h264_sequence(NalUnit unit, uint32_t& id);

class H264Pictures final : public PictureReader {
  public:
    Picture look(std::span<const uint8_t> sample) override;
    uint32_t shown_after() const override { return shown_after_; }

    // Reads a parameter set from outside the samples.
    void take_parameter_set(NalUnit unit);

  private:
    // Fields of a picture parameter set (7.3.2.2).
    struct PictureSet {
        uint32_t sequence = 0;
    };
    // Fields of a slice header (7.3.3) that define the order.
    struct Slice {
        bool is_idr = false;
        bool is_reference = false;
        uint32_t frame_number = 0;
        uint32_t order_low = 0;    // type 0
        int32_t order_change = 0;  // type 1
    };

    bool read_slice(NalUnit unit, Slice& slice, const H264Sequence*& sequence) const;
    int64_t picture_order(const Slice& slice, const H264Sequence& sequence);
    int64_t order_from_low_bits(const Slice& slice, const H264Sequence& sequence);
    int64_t order_from_frame_number(const Slice& slice, const H264Sequence& sequence);

    std::map<uint32_t, H264Sequence> sequences_;
    std::map<uint32_t, PictureSet> pictures_;
    uint64_t coded_sequences_ = 0;  // begun so far: one for each IDR picture
    uint32_t shown_after_ = 0;
    uint64_t number_ = 0;        // of the picture in its coded sequence
    int64_t previous_high_ = 0;  // of the last reference picture
    uint32_t previous_low_ = 0;
    uint32_t previous_frame_number_ = 0;
    int64_t frame_number_base_ = 0;
};

}  // namespace kestrel::packer

#endif
