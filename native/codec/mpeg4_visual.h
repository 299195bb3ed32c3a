// SPDX-License-Identifier: Apache-2.0
// MPEG-4 Visual (ISO/IEC 14496-2).
#ifndef KESTREL_CODEC_MPEG4_VISUAL_H
#define KESTREL_CODEC_MPEG4_VISUAL_H

#include <cstdint>

namespace kestrel {

// Start codes: the byte after 00 00 01 (6.2.1).
inline constexpr uint8_t kFirstLayer = 0x20, kLastLayer = 0x2F;  // video object layers
inline constexpr uint8_t kVisualObjectSequence = 0xB0;
inline constexpr uint8_t kGroupOfVop = 0xB3;
inline constexpr uint8_t kVop = 0xB6;

inline constexpr uint8_t kMpeg4Visual = 0x20;  // object type indication (14496-1, table 8)

}  // namespace kestrel

#endif
