// SPDX-License-Identifier: Apache-2.0
#include "native/codec/h263_payload.h"

namespace kestrel {
namespace {

// Packs fields most significant bit first.
class BitPacker {
  public:
    explicit BitPacker(PayloadHeader& header) : header_(header) {}

    void put(unsigned bits, uint32_t value) {
        for (unsigned i = bits; i-- > 0; ++position_) {
            header_.bytes[position_ / 8] |=
                static_cast<uint8_t>((value >> i & 1) << (7 - position_ % 8));
        }
    }
    void finish() { header_.size = position_ / 8; }

  private:
    PayloadHeader& header_;
    size_t position_ = 0;
};

unsigned bits_after(unsigned end_bit) {
    return (8 - end_bit) & 7;
}

uint32_t unbiased(int16_t predictor) {
    return static_cast<uint32_t>(predictor - kNchVectorBias);
}

}  // namespace

PayloadHeader rfc2190_mode_a(uint32_t source_format, uint32_t coding_type, unsigned end_bit) {
    PayloadHeader header;
    BitPacker fields(header);
    fields.put(2, 0);  // F, P
    fields.put(3, 0);  // SBIT
    fields.put(3, bits_after(end_bit));
    fields.put(3, source_format);
    fields.put(1, coding_type);
    fields.put(20, 0);  // U, S, A, reserved, DBQ, TRB, TR
    fields.finish();
    return header;
}

PayloadHeader put_rfc2190_B(const nch_picture& picture, const VideoFragment& fragment) {
    const nch_macroblock& first = fragment.macroblock;
    PayloadHeader header;
    BitPacker fields(header);
    fields.put(1, 1);  // F
    fields.put(1, 0);  // P
    fields.put(3, fragment.start_bit);
    fields.put(3, bits_after(fragment.end_bit));
    fields.put(3, picture.source_format);
    fields.put(5, first.quantiser);
    fields.put(5, first.gob_number);
    fields.put(9, first.address);
    fields.put(2, 0);  // reserved
    fields.put(1, picture.coding_type);
    fields.put(3, 0);  // U, S, A
    fields.put(7, unbiased(first.hmv1));
    fields.put(7, unbiased(first.vmv1));
    fields.put(7, unbiased(first.hmv2));
    fields.put(7, unbiased(first.vmv2));
    fields.finish();
    return header;
}

PayloadHeader rfc4629(bool start_code) {
    constexpr uint8_t kPictureStart = 0x04;  // P
    PayloadHeader header;
    header.bytes[0] = start_code ? kPictureStart : uint8_t{0};
    header.size = kRfc4629Size;
    return header;
}

}  // namespace kestrel
