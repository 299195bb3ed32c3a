// SPDX-License-Identifier: Apache-2.0
// RTP payload types, clocks and the longest packet.
#ifndef KESTREL_CODEC_PAYLOAD_TYPES_H
#define KESTREL_CODEC_PAYLOAD_TYPES_H

#include <cstdint>

namespace kestrel {

inline constexpr uint32_t kVideoClock = 90000;  // Hz, of all video payload formats

inline constexpr int kRfc2190PayloadType = 34;  // H.263 by RFC 2190, assigned by RFC 3551
inline constexpr int kFirstDynamicPayloadType = 96;
inline constexpr int kLastPayloadType = 127;

// The payload types of the native stream, whatever those of the file are.
inline constexpr int kNativeAmrPayloadType = 101;
inline constexpr int kNativeAmrWideBandPayloadType = 102;
inline constexpr int kNativeH263PayloadType = kRfc2190PayloadType;
inline constexpr int kNativeMpeg4PayloadType = 102;
inline constexpr int kNativeH264PayloadType = 103;

// Bytes of the longest packet of a hint track that the function API plays, and of the payload of
// the longest that it makes.
inline constexpr int kMaxPacketBytes = 1400;

}  // namespace kestrel

#endif
