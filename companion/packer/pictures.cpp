// SPDX-License-Identifier: Apache-2.0
#include "companion/packer/pictures.h"

#include "companion/packer/h264_pictures.h"
#include "kestrel/codec.h"
#include "native/codec/h263_parse.h"
#include "native/codec/mpeg4_visual.h"

namespace kestrel::packer {
namespace {

// H.263: display order is decoding order.
class H263Pictures final : public PictureReader {
  public:
    Picture look(std::span<const uint8_t> sample) override { return {is_intra(sample), number_++}; }

  private:
    // The walker's parser knows all formats, the scanner the modes that cannot be walked.
    bool is_intra(std::span<const uint8_t> sample) {
        BitReader reader(sample);
        if (nch_picture_parse(reader, picture_)) return picture_.coding_type == kNchIntra;
        return h263_get_frame_type(sample.data(), static_cast<int>(sample.size())) == kNchIntra;
    }

    nch_picture picture_;  // kept from picture to picture
    uint64_t number_ = 0;
};

// MPEG-4 Visual (ISO/IEC 14496-2, 6.1.3.5): a B-VOP is displayed before the reference VOP that
// precedes it in the stream, any other VOP when the next reference VOP arrives.
class Mpeg4Pictures final : public PictureReader {
  public:
    Picture look(std::span<const uint8_t> sample) override {
        const unsigned type = coding_type(sample);
        if (type == kBidirectional) return {false, references_ << 32 | between_++};
        between_ = 0;
        return {type == kIntra, ++references_ << 32 | UINT32_MAX};
    }

  private:
    enum : unsigned { kIntra = 0, kBidirectional = 2, kNoPicture = 4 };

    // vop_coding_type of the first VOP.
    static unsigned coding_type(std::span<const uint8_t> sample) {
        for (size_t at = 0; at + 4 < sample.size(); ++at) {
            const auto code = sample.subspan(at, 4);
            if (code[0] == 0 && code[1] == 0 && code[2] == 1 && code[3] == kVop)
                return sample[at + 4] >> 6;
        }
        return kNoPicture;
    }

    uint64_t references_ = 0;
    uint32_t between_ = 0;
};

}  // namespace

std::unique_ptr<PictureReader> make_picture_reader(stream::Medium medium) {
    switch (medium) {
        case stream::Medium::kMpeg4:
            return std::make_unique<Mpeg4Pictures>();
        case stream::Medium::kH264:
            return std::make_unique<H264Pictures>();
        default:
            return std::make_unique<H263Pictures>();
    }
}

}  // namespace kestrel::packer
