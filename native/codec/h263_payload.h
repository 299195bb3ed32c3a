// SPDX-License-Identifier: Apache-2.0
// H.263 payload headers of RTP packets: RFC 2190 modes A and B, and RFC 4629 (which obsoletes
// RFC 2429).
#ifndef KESTREL_NATIVE_H263_PAYLOAD_H
#define KESTREL_NATIVE_H263_PAYLOAD_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "native/codec/video_fragment.h"

namespace kestrel {

struct PayloadHeader {
    std::array<uint8_t, 8> bytes{};
    size_t size = 0;
};

inline constexpr size_t kRfc2190ModeASize = 4;
inline constexpr size_t kRfc2190ModeBSize = 8;
inline constexpr size_t kRfc4629Size = 2;

// RFC 2190, 5.1. `end_bit` is the bit of the last byte where the packet ends, 0 for the end of the
// byte.
PayloadHeader rfc2190_mode_a(uint32_t source_format, uint32_t coding_type, unsigned end_bit);

// RFC 2190, 5.2, for a packet that begins with fragment.macroblock of the picture.
PayloadHeader put_rfc2190_B(const nch_picture& picture, const VideoFragment& fragment);

// RFC 4629, 5.1, without VRC and extra picture header. `start_code` means that the packet begins
// with a start code whose two zero bytes are omitted.
PayloadHeader rfc4629(bool start_code);

}  // namespace kestrel

#endif
