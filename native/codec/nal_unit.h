// SPDX-License-Identifier: Apache-2.0
// NAL units of H.264 (ITU-T H.264, 7.3.1 and annex B).
#ifndef KESTREL_CODEC_NAL_UNIT_H
#define KESTREL_CODEC_NAL_UNIT_H

#include <array>
#include <cstdint>
#include <span>

namespace kestrel {

using NalUnit = std::span<const uint8_t>;

enum NalType : uint8_t { kIdrSlice = 5, kSequenceSet = 7, kPictureSet = 8, kStapA = 24, kFuA = 28 };

inline constexpr uint8_t kNalTypeBits = 0x1F;  // of a unit's first byte

// Type of a unit that is not empty; a NalType, or another value of table 7-1.
constexpr uint8_t nal_type(NalUnit unit) {
    return unit[0] & kNalTypeBits;
}

// The start code between the units of a byte stream.
inline constexpr std::array<uint8_t, 4> kStartCode = {0, 0, 0, 1};

}  // namespace kestrel

#endif
