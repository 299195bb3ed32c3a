// SPDX-License-Identifier: Apache-2.0
// The fixed header of an RTP packet (RFC 3550, 5.1).
#ifndef KESTREL_CODEC_RTP_HEADER_H
#define KESTREL_CODEC_RTP_HEADER_H

#include "common/bytes.h"

namespace kestrel {

inline constexpr uint32_t kRtpHeaderSize = 12;
inline constexpr uint32_t kRtpVersion2 = 0x80000000;  // in the first word
inline constexpr uint8_t kRtpPayloadType = 0x7F;      // mask
inline constexpr uint8_t kRtpMarker = 0x80;           // in the byte of the payload type

// Offsets of the fields.
struct RtpLayout {
    static constexpr int kMarkerAndType = 1, kSequence = 2, kTime = 4, kSsrc = 8;
};

struct RtpHeader {
    bool marker;
    uint8_t payload_type;
    uint16_t sequence;
    uint32_t time;
};

// From kRtpHeaderSize bytes.
constexpr RtpHeader load_rtp_header(const uint8_t* raw) {
    const uint8_t type = raw[RtpLayout::kMarkerAndType];
    return {type > kRtpPayloadType, static_cast<uint8_t>(type & kRtpPayloadType),
            load_be16(raw + RtpLayout::kSequence), load_be32(raw + RtpLayout::kTime)};
}

}  // namespace kestrel

#endif
