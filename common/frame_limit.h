// SPDX-License-Identifier: Apache-2.0
#ifndef KESTREL_COMMON_FRAME_LIMIT_H
#define KESTREL_COMMON_FRAME_LIMIT_H

#include <cstdint>

namespace kestrel {

// Limit of a frame in bytes: of its sample, and of its packets with their headers.
inline constexpr uint32_t kMaxFrameBytes = 16 << 20;

// The same with the frame's record: the longest chunk of a native stream.
inline constexpr uint32_t kMaxChunkBytes = kMaxFrameBytes + 64;

// Limit of the samples of a track: 93 hours of speech.
inline constexpr uint32_t kMaxTrackSamples = 1 << 24;

}  // namespace kestrel

#endif
